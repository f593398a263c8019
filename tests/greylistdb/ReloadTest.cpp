// The reload request, through a real dispatcher.
#include "tests/support/GreylistTables.h"

#include "foundation/ipc/Dispatcher.h"
#include "greylist/GlDisplay.h"
#include "tests/support/RawClient.h"
#include "tests/support/UnreachableServer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Vellum::GreyList {
namespace {

using testing::ElementsAre;
using testing::StartsWith;

class ReloadTest : public GreylistTables {
  protected:
    ReloadTest() {
        m_dispatcher.add(IPC::MyHandler<RecordHandler>());
        m_dispatcher.add(IPC::MyHandler<UpdatedHandler>());
        IPC::DispatcherOptions options;
        options.port = 0;
        m_dispatcher.start(options);
        m_tuples.add(tuple(0), Status(1, 2, 3));
    }
    ~ReloadTest() override { m_dispatcher.stop(); }

    // What a listing answers in numbers: count, one record for each, end.
    static std::string sizeOfListing(std::int32_t count) {
        return rawUnit(3, {reinterpret_cast<char const*>(&count), sizeof count});
    }

    IPC::Dispatcher m_dispatcher{29001};
};

TEST_F(ReloadTest, LoadsBothCachesAndAnswersNothing) {
    run({"insert into grey_list values ('192.0.2.0/24', 'a@b', 'c@d', 1, 2), ('192.0.2.0/24', 'b@b', 'c@d', 1, 2)",
         "insert into autoexempt values ('192.0.2.0/24', 'd', 5, 6)"});
    RawClient client(m_dispatcher.boundPort());
    client.send(rawUnit(9) + rawUnit(5));
    EXPECT_EQ(client.read(12), sizeOfListing(2)) << "nothing but the listing that was asked for next";
    client.read(2 * 568 + 8);
    EXPECT_THAT(tuplesHeld(), ElementsAre("192.0.2.0/24 a@b c@d 1 2 0", "192.0.2.0/24 b@b c@d 1 2 0"));
    EXPECT_THAT(exemptionsHeld(), ElementsAre("192.0.2.0/24 d 5 6 0"));
    auto const records = m_log.records();
    ASSERT_EQ(records.size(), 1U);
    EXPECT_EQ(records[0].code, 0x30001A1U);
    EXPECT_EQ(records[0].format, "%s");
    EXPECT_THAT(records[0].fields, ElementsAre(" "));
}

TEST_F(ReloadTest, TableThatIsRefusedIsAReloadAllTheSame) {
    run({"insert into grey_list values ('192.0.2.0/24', '', 'c@d', 1, 2)"});
    RawClient client(m_dispatcher.boundPort());
    client.send(rawUnit(9) + rawUnit(5));
    EXPECT_EQ(client.read(12), sizeOfListing(1)) << "the cache as it was";
    client.read(568 + 8);
    auto const records = m_log.records();
    ASSERT_EQ(records.size(), 2U);
    EXPECT_EQ(records[0].code, 0x300019EU);
    EXPECT_EQ(records[1].code, 0x30001A1U);
}

TEST_F(ReloadTest, ServerThatIsAwayEndsTheConnectionAndKeepsTheCaches) {
    UnreachableServer const away;
    RawClient client(m_dispatcher.boundPort());
    client.send(rawUnit(9) + rawUnit(5));
    EXPECT_EQ(client.readUntilEnd(), "");
    auto const failed = m_log.waitForRecord(0x30001A2);
    ASSERT_TRUE(failed.has_value());
    EXPECT_EQ(failed->format, "%s");
    EXPECT_THAT(failed->text, StartsWith("Connection (code 4)"));
    EXPECT_TRUE(holds(m_tuples, tuple(0)));
}

} // namespace
} // namespace Vellum::GreyList
