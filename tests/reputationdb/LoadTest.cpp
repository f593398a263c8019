// From the tables into the cache.
#include "tests/support/ReputationTables.h"

#include "reputation/EntryRow.h"
#include "reputation/ReputationDisplay.h"
#include "reputation/ReputationHandlers.h"

#include "foundation/ipc/Dispatcher.h"
#include "tests/support/RawClient.h"
#include "tests/support/UnreachableServer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Vellum::Reputation {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

using Record = Entry::Record;

class LoadTest : public ReputationTables {
  protected:
    static void addRow(std::string const& address, std::string const& numbers) {
        run({"insert into sender_reputation values ('" + address + "', " + numbers + ")"});
    }
    static void addState(std::string const& address, int state) {
        run({"insert into sender_reputation_state values ('" + address + "', " + std::to_string(state) + ")"});
    }
    // The one record of a load that failed.
    void expectFailure(std::string const& begin, std::string const& part) const {
        auto const lines = m_log.lines();
        ASSERT_EQ(lines.size(), 1U);
        EXPECT_EQ(lines[0].code, 0x3000188U);
        EXPECT_EQ(lines[0].level, 0);
        EXPECT_EQ(lines[0].format, "%s\x01%d\x01%s");
        ASSERT_EQ(lines[0].fields.size(), 3U);
        EXPECT_EQ(lines[0].fields[0], "ReputationDatabase");
        EXPECT_EQ(lines[0].fields[1], "387");
        EXPECT_THAT(lines[0].fields[2], StartsWith(begin));
        EXPECT_THAT(lines[0].fields[2], HasSubstr(part));
    }
};

TEST_F(LoadTest, RowsWithTheirStatesBecomeEntries) {
    addRow("192.0.2.25", "5, 1, 2, 3, 4, 5");
    addRow("192.0.2.25", "6, 0, 0, 0, 0, 0");
    addRow("2001:db8::1", "477000, 7, 8, 9, 10, 11");
    addState("192.0.2.25", 2);
    addState("2001:db8::1", 0);
    Database database(DatabaseTables::address());
    EXPECT_THAT(sent([&] { database.read(); }),
                ElementsAre("select * from sender_reputation,sender_reputation_state where "
                            "(sender_reputation.ClientIPAddress = sender_reputation_state.ClientIPAddress )"));
    EXPECT_THAT(held(), ElementsAre("192.0.2.25 2: 5=1/2/3/4/5 6=0/0/0/0/0", "2001:db8::1 0: 477000=7/8/9/10/11"));
    EXPECT_TRUE(m_log.lines().empty());
    EXPECT_TRUE(LoadReport::last().attempted);
    EXPECT_TRUE(LoadReport::last().loaded);
    EXPECT_EQ(LoadReport::last().rows, 3U);
    EXPECT_EQ(LoadReport::last().problem, "");
    EXPECT_EQ(m_cache.entry(ip("192.0.2.25"))->lastModified(), 6 * 3600) << "nothing has changed since";
}

// The join is meant so: an address without a state was not saved by a backup.
TEST_F(LoadTest, RecordsWithoutAStateAreNotLoadedAndStatesWithoutRecordsMakeNoEntry) {
    addRow("192.0.2.25", "5, 1, 2, 3, 4, 5");
    addState("192.0.2.26", 2);
    read();
    EXPECT_THAT(held(), IsEmpty());
    EXPECT_TRUE(LoadReport::last().loaded);
}

TEST_F(LoadTest, LoadedHourReplacesTheCachedOneAndTheOthersStay) {
    RefEntry const entry = m_cache.entry(ip("192.0.2.25"));
    entry->add(5, Record(9, 9, 9, 9, 9));
    entry->increment(Entry::AttributeType::Flagged, 5, 1);
    entry->add(6, Record(8, 8, 8, 8, 8));
    entry->state(ReputationState::blocked);
    m_cache.entry(ip("192.0.2.99"))->add(7, Record(1, 1, 1, 1, 1));
    addRow("192.0.2.25", "5, 1, 2, 3, 4, 5");
    addState("192.0.2.25", 1);
    read();
    EXPECT_THAT(held(), ElementsAre("192.0.2.25 1: 5=1/2/3/4/5 6=8/8/8/8/8", "192.0.2.99 0: 7=1/1/1/1/1"));
    EXPECT_EQ(recordsOf(entry).at(5).flagged, 0U) << "all nine counters";
    EXPECT_EQ(m_cache.entry(ip("192.0.2.25")), entry) << "the same entry, for those who hold it";
}

TEST_F(LoadTest, NumbersAreTakenAsTheColumnHasThem) {
    addRow("192.0.2.25", "2147483647, 2147483647, -1, -2147483648, 0, 1");
    addState("192.0.2.25", -5);
    read();
    EXPECT_THAT(held(), ElementsAre("192.0.2.25 4294967291: "
                                    "2147483647=2147483647/4294967295/2147483648/0/1"));
}

TEST_F(LoadTest, EmptyAddressFailsTheWholeLoadAndTheCacheStays) {
    m_cache.entry(ip("192.0.2.99"))->add(7, Record(1, 1, 1, 1, 1));
    addRow("", "5, 1, 2, 3, 4, 5");
    addRow("192.0.2.25", "5, 1, 2, 3, 4, 5");
    addState("", 1);
    addState("192.0.2.25", 1);
    read();
    EXPECT_THAT(held(), ElementsAre("192.0.2.99 0: 7=1/1/1/1/1"));
    expectFailure("EntryRow (code 4, ReputationDatabase:39): Invalid SenderReputation Entry",
                  "the row ('', '5', '1', '2', '3', '4', '5', '', '1'); row ");
    EXPECT_TRUE(LoadReport::last().attempted);
    EXPECT_FALSE(LoadReport::last().loaded);
    EXPECT_THAT(LoadReport::last().problem, HasSubstr("of sender_reputation with sender_reputation_state"));
}

TEST_F(LoadTest, EachOfTheNineColumnsMustHoldSomething) {
    for (char const* const column : {"sender_reputation modify Period", "sender_reputation modify MessageCount",
                                     "sender_reputation modify Recipients",
                                     "sender_reputation modify InvalidRecipients", "sender_reputation modify Infected",
                                     "sender_reputation modify Spam", "sender_reputation_state modify State"}) {
        server().freshDatabase();
        Database(DatabaseTables::address()).createTable();
        std::string const changed = std::string("alter table ") + column + " varchar(10) null";
        addRow("192.0.2.25", "5, 1, 2, 3, 4, 5");
        addState("192.0.2.25", 1);
        std::string const table = std::string(column).substr(0, std::string(column).find(' '));
        std::string const name = std::string(column).substr(std::string(column).rfind(' ') + 1);
        if (name == "Period") {
            run({"alter table sender_reputation drop primary key"});
        }
        run({changed, "update " + table + " set " + name + " = ''"});
        m_log.clear();
        read();
        expectFailure("EntryRow (code 4, ReputationDatabase:39): Invalid SenderReputation Entry", "row 1 of");
        run({"update " + table + " set " + name + " = null"});
        m_log.clear();
        read();
        expectFailure("EntryRow (code 4, ReputationDatabase:39): Invalid SenderReputation Entry", "row 1 of");
        EXPECT_THAT(held(), IsEmpty()) << column;
    }
}

TEST_F(LoadTest, AddressThatIsNoneFailsTheWholeLoad) {
    addRow("192.0.2.256", "5, 1, 2, 3, 4, 5");
    addState("192.0.2.256", 1);
    read();
    expectFailure("IPAddress::IPAddress (code 4, IPAddress): \"192.0.2.256\" is not an IP address",
                  "row 1 of sender_reputation with sender_reputation_state");
    EXPECT_FALSE(LoadReport::last().loaded);
}

TEST_F(LoadTest, MissingTableFailsTheLoad) {
    run({"drop table sender_reputation_state"});
    read();
    expectFailure("Query::execute", "sender_reputation_state' doesn't exist");
    EXPECT_FALSE(LoadReport::last().loaded);
}

TEST_F(LoadTest, ServerThatIsAwayHasNoObjectToReadWith) {
    UnreachableServer const away;
    EXPECT_THROW(Database(DatabaseTables::address()), Vellum::Database::DatabaseException);
}

// More rows than the cache has room for: the ones that came first go, and nothing else happens.
TEST_F(LoadTest, TableLargerThanTheCacheFillsIt) {
    run({"insert into sender_reputation select concat('10.', seq div 65536, '.', (seq div 256) mod 256, '.', seq mod "
         "256), 5, seq, 1, 0, 0, 0 from seq_0_to_10999",
         "insert into sender_reputation_state select ClientIPAddress, 0 from sender_reputation"});
    read();
    EXPECT_EQ(sizeOf(m_cache), Cache::mostEntries);
    EXPECT_EQ(LoadReport::last().rows, 11000U);
    EXPECT_TRUE(m_log.lines().empty());
}

class ReloadTest : public LoadTest {
  protected:
    ReloadTest() {
        m_dispatcher.add(IPC::MyHandler<EntryHandler>());
        m_dispatcher.add(IPC::MyHandler<UpdatedHandler>());
        m_dispatcher.add(IPC::MyHandler<SetStateHandler>());
        IPC::DispatcherOptions options;
        options.port = 0;
        m_dispatcher.start(options);
    }
    ~ReloadTest() override { m_dispatcher.stop(); }

    IPC::Dispatcher m_dispatcher{29001};
};

TEST_F(ReloadTest, LoadsTheTablesAndAnswersNothing) {
    addRow("192.0.2.25", "5, 1, 2, 3, 4, 5");
    addState("192.0.2.25", 3);
    RawClient client(m_dispatcher.boundPort());
    client.send(rawUnit(12) + rawUnit(10));
    EXPECT_EQ(client.read(12), rawUnit(3, std::string("\1\0\0\0", 4))) << "nothing but the listing asked for next";
    client.read(48 + 8);
    EXPECT_THAT(held(), ElementsAre("192.0.2.25 3: 5=1/2/3/4/5"));
    auto const records = m_log.records();
    ASSERT_EQ(records.size(), 1U);
    EXPECT_EQ(records[0].code, 0x3000196U);
    EXPECT_EQ(records[0].format, "%s");
    EXPECT_THAT(records[0].fields, ElementsAre(" "));
}

TEST_F(ReloadTest, ServerThatIsAwayEndsTheConnectionAndKeepsTheCache) {
    m_cache.entry(ip("192.0.2.99"))->add(7, Record(1, 1, 1, 1, 1));
    UnreachableServer const away;
    RawClient client(m_dispatcher.boundPort());
    client.send(rawUnit(12) + rawUnit(10));
    EXPECT_EQ(client.readUntilEnd(), "");
    ASSERT_TRUE(m_log.waitForRecord(0x3000197).has_value());
    EXPECT_THAT(held(), ElementsAre("192.0.2.99 0: 7=1/1/1/1/1"));
}

TEST_F(ReloadTest, SetStateIsNotAnsweredAndTheNextRequestIs) {
    RawClient client(m_dispatcher.boundPort());
    client.send(rawUnit(13, std::string("\xc0\x00\x02\x19\x03\0\0\0", 8)) + rawUnit(10));
    EXPECT_EQ(client.read(20), rawUnit(3, std::string(4, '\0')) + rawUnit(4));
    EXPECT_EQ(m_log.records().at(0).text, "192.0.2.25");
}

} // namespace
} // namespace Vellum::Reputation
