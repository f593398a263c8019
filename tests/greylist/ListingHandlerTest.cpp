// The two listing handlers, called directly.
#include "greylist/GlDisplay.h"

#include "foundation/Exception.h"
#include "foundation/ipc/Dispatcher.h"
#include "tests/support/OwnProcess.h"
#include "tests/support/ProcessCaches.h"
#include "tests/support/ScriptedSocket.h"

#include <gtest/gtest.h>

#include <atomic>
#include <new>
#include <string_view>
#include <thread>

namespace Vellum::GreyList {
namespace {

using IPC::Pdu;
using IPC::PduType;

std::string packetUnit(std::uint32_t type, Packet const& packet) {
    return rawUnit(type, {reinterpret_cast<char const*>(&packet), sizeof packet});
}
std::string countUnit(std::int32_t count) {
    return rawUnit(3, {reinterpret_cast<char const*>(&count), sizeof count});
}
std::string const endUnit = rawUnit(4);

class ListingHandlerTest : public ProcessCaches {
  protected:
    static int list(ScriptedClient& client) { return RecordHandler().task(client.connection, Pdu(5, 0U)); }
    static int listExemptions(ScriptedClient& client) {
        return AutoExemptHandler().task(client.connection, Pdu(7, 0U));
    }

    // Seen in 1970, so it has passed; and in 2100, so it waits.
    Status const m_old{1000, 2000, 0};
    Status const m_coming{4102444800L, 4102444900L, 0};
};

TEST_F(ListingHandlerTest, EmptyCacheIsACountOfZeroAndTheEndMarker) {
    ScriptedClient tuples;
    EXPECT_EQ(list(tuples), 0);
    EXPECT_EQ(tuples.socket.sent, countUnit(0) + endUnit);
    ScriptedClient exemptions;
    EXPECT_EQ(listExemptions(exemptions), 0);
    EXPECT_EQ(exemptions.socket.sent, countUnit(0) + endUnit);
    EXPECT_TRUE(m_log.lines().empty());
}

TEST_F(ListingHandlerTest, TuplesComeInKeyOrderExpiredOnesIncluded) {
    TupleId const a = tuple("192.0.2.0/24", "a@b", "c@d");
    TupleId const b = tuple("192.0.2.0/24", "b@b", "c@d");
    TupleId const c = tuple("2001:db8::/64", "a@b", "c@d");
    m_tuples.add(c, m_coming);
    m_tuples.add(a, m_coming);
    m_tuples.add(b, m_old);
    ScriptedClient client;
    EXPECT_EQ(list(client), 0);
    long const now = 1700000000; // any between the two
    EXPECT_EQ(client.socket.sent, countUnit(3) + packetUnit(6, Packet(a, m_coming, now)) +
                                      packetUnit(6, Packet(b, m_old, now)) + packetUnit(6, Packet(c, m_coming, now)) +
                                      endUnit);
    EXPECT_EQ(client.socket.sent.size(), 12U + 3 * 568U + 8U);
}

TEST_F(ListingHandlerTest, ExemptionsComeInKeyOrderDeadOnesIncluded) {
    DynamicExemptId const a = exemption("198.51.100.0/24", "a.example");
    DynamicExemptId const b = exemption("192.0.2.0/24", "b.example");
    m_exemptions.add(b, m_old);
    m_exemptions.add(a, m_coming);
    ScriptedClient client;
    EXPECT_EQ(listExemptions(client), 0);
    EXPECT_EQ(client.socket.sent,
              countUnit(2) + packetUnit(8, Packet(a, m_coming)) + packetUnit(8, Packet(b, m_old)) + endUnit);
    EXPECT_EQ(sizeOf(m_exemptions), 2U);
}

TEST_F(ListingHandlerTest, StopWaitingAfterTheFirstRecordEndsTheListingThere) {
    for (unsigned int n = 0; n < 3; ++n) {
        m_tuples.add(tuple(n), m_coming);
        m_exemptions.add(exemption(n), m_coming);
    }
    ScriptedClient tuples;
    tuples.socket.arriving = {rawUnit(4)};
    EXPECT_EQ(list(tuples), 0);
    EXPECT_EQ(tuples.socket.sent, countUnit(3) + packetUnit(6, Packet(tuple(0), m_coming, 0)) + endUnit);
    ScriptedClient exemptions;
    exemptions.socket.arriving = {rawUnit(4)};
    EXPECT_EQ(listExemptions(exemptions), 0);
    EXPECT_EQ(exemptions.socket.sent, countUnit(3) + packetUnit(8, Packet(exemption(0), m_coming)) + endUnit);
}

TEST_F(ListingHandlerTest, AnyOtherUnitIsReadAndTheListingGoesOn) {
    for (unsigned int n = 0; n < 5; ++n) {
        m_tuples.add(tuple(n), m_coming);
    }
    ScriptedClient client;
    client.socket.arriving = {rawUnit(5), rawUnit(77, std::string(1024, 'x')), rawUnit(4)};
    EXPECT_EQ(list(client), 0);
    EXPECT_EQ(client.socket.sent.size(), 12U + 3 * 568U + 8U) << "stopped by the third unit";
    EXPECT_TRUE(client.socket.arriving.empty());
}

TEST_F(ListingHandlerTest, ListingDoesNotCountAsAUse) {
    for (unsigned int n = 0; n < capacity; ++n) {
        m_tuples.add(tuple(n), m_coming);
    }
    ScriptedClient client;
    EXPECT_EQ(list(client), 0);
    m_tuples.add(tuple(capacity), m_coming);
    EXPECT_FALSE(holds(m_tuples, tuple(0)));
    EXPECT_TRUE(holds(m_tuples, tuple(1)));
}

TEST_F(ListingHandlerTest, RequestOfAnotherTypeIsRefusedWithItsRecord) {
    m_tuples.add(tuple(0), m_coming);
    ScriptedClient client;
    EXPECT_EQ(RecordHandler().task(client.connection, Pdu(7, 0U)), -1);
    EXPECT_EQ(AutoExemptHandler().task(client.connection, Pdu(5, 0U)), -1);
    EXPECT_EQ(UpdatedHandler().task(client.connection, Pdu(5, 0U)), -1);
    EXPECT_EQ(client.socket.sent, "");
    auto const records = m_log.lines();
    ASSERT_EQ(records.size(), 3U);
    for (auto const& record : records) {
        EXPECT_TRUE(record.isRecord);
        EXPECT_EQ(record.level, 0);
        EXPECT_EQ(record.format, "%s\x01%d");
    }
    EXPECT_EQ(records[0].code, 0x3000170U);
    EXPECT_EQ(records[0].fields, (std::vector<std::string>{"GlDisplay", "154"}));
    EXPECT_EQ(records[1].code, 0x3000172U);
    EXPECT_EQ(records[1].fields, (std::vector<std::string>{"GlDisplay", "221"}));
    EXPECT_EQ(records[2].code, 0x30001A0U);
    EXPECT_EQ(records[2].fields, (std::vector<std::string>{"GlRecordDatabase", "493"}));
}

// Throws at the n-th unit that is sent.
void failAt(ScriptedClient& client, int unit, std::function<void()> failure) {
    client.socket.onSend = [unit, failure = std::move(failure), sent = 0](std::uint32_t) mutable {
        if (sent++ == unit) {
            failure();
        }
    };
}

TEST_F(ListingHandlerTest, FailureIsLoggedAndNoEndMarkerFollows) {
    auto const hangUp = [] {
        throw Exception("SocketIPC::send", Exception::failure).stringParameter("gone");
    };
    for (int const unit : {0, 1, 2, 3}) { // count, two records, end marker
        m_tuples.clear();
        m_exemptions.clear();
        m_log.clear();
        m_tuples.add(tuple(0), m_coming);
        m_tuples.add(tuple(1), m_coming);
        m_exemptions.add(exemption(0), m_coming);
        m_exemptions.add(exemption(1), m_coming);
        ScriptedClient tuples;
        failAt(tuples, unit, hangUp);
        EXPECT_EQ(list(tuples), -1);
        ScriptedClient exemptions;
        failAt(exemptions, unit, hangUp);
        EXPECT_EQ(listExemptions(exemptions), -1);
        std::size_t const sent = unit == 0 ? 0U : 12U + 568U * static_cast<std::size_t>(unit - 1);
        EXPECT_EQ(tuples.socket.sent.size(), sent);
        EXPECT_EQ(exemptions.socket.sent.size(), sent);
        auto const records = m_log.lines();
        ASSERT_EQ(records.size(), 2U);
        EXPECT_EQ(records[0].code, 0x3000171U);
        EXPECT_EQ(records[0].format, "%s");
        EXPECT_EQ(records[0].text, "SocketIPC::send (code 4): gone");
        EXPECT_EQ(records[1].code, 0x3000173U);
        EXPECT_EQ(records[1].format, "%s");
        EXPECT_EQ(records[1].text, "SocketIPC::send (code 4): gone");
        m_tuples.remove(tuple(0)); // nobody holds the locks any more
        m_exemptions.remove(exemption(0));
    }
}

TEST_F(ListingHandlerTest, OtherExceptionsPassAndTheLockIsReleased) {
    m_tuples.add(tuple(0), m_coming);
    ScriptedClient client;
    failAt(client, 1, [] { throw std::bad_alloc(); });
    EXPECT_THROW(list(client), std::bad_alloc);
    EXPECT_TRUE(m_log.lines().empty());
    m_tuples.remove(tuple(0));
}

TEST(ListingHandlerDeathTest, WithoutAConfigurationTheListingFails) {
    expectInOwnProcess([] {
        CapturingLogger log;
        ScriptedClient client;
        EXPECT_EQ(RecordHandler().task(client.connection, Pdu(5, 0U)), -1);
        EXPECT_EQ(AutoExemptHandler().task(client.connection, Pdu(7, 0U)), -1);
        EXPECT_EQ(client.socket.sent, "");
        ASSERT_EQ(log.lines().size(), 2U);
        EXPECT_EQ(log.lines()[0].code, 0x3000171U);
        EXPECT_EQ(log.lines()[0].text, "operator-> (code 1, include2/VellumRefcounted:359)");
        EXPECT_EQ(log.lines()[1].code, 0x3000173U);
    });
}

TEST_F(ListingHandlerTest, DecisionsOnKnownTuplesGoOnBesideAListing) {
    m_tuples.add(tuple(0), Status(1000, 2000, 0));
    m_tuples.add(tuple(1), Status(1000, 2000, 0));
    ScriptedClient client;
    std::vector<int> answers;
    client.socket.onSend = [&](std::uint32_t) {
        std::thread([&] {
            answers.push_back(m_tuples.state(tuple(0), 1299));
            answers.push_back(m_tuples.state(tuple(1), 1300));
        }).join();
    };
    EXPECT_EQ(list(client), 0);
    EXPECT_EQ(answers, (std::vector<int>{0, 1, 0, 1, 0, 1, 0, 1})) << "at the count, each record and the end marker";
}

TEST_F(ListingHandlerTest, NewTupleWaitsUntilTheEndMarkerIsSent) {
    m_tuples.add(tuple(0), m_coming);
    ScriptedClient client;
    std::atomic<bool> added{false};
    std::thread decision;
    client.socket.onSend = [&](std::uint32_t type) {
        if (type == 3) {
            decision = std::thread([&] {
                m_tuples.state(tuple(1), 1000);
                added = true;
            });
            while (!m_tuples.lock.isClaimed()) {
                std::this_thread::yield();
            }
        }
        EXPECT_FALSE(added) << "at unit " << type;
    };
    EXPECT_EQ(list(client), 0);
    decision.join();
    EXPECT_EQ(client.socket.sent, countUnit(1) + packetUnit(6, Packet(tuple(0), m_coming, 0)) + endUnit);
    EXPECT_TRUE(holds(m_tuples, tuple(1)));
}

TEST_F(ListingHandlerTest, HandlersAreRegisteredForTheirTypesAsLongOnes) {
    auto& dispatcher = IPC::Dispatcher::instance(29001);
    ASSERT_TRUE(dispatcher.handler(5).isNull()) << "nothing is registered by itself";
    addRecordHandler();
    ASSERT_FALSE(dispatcher.handler(5).isNull());
    ASSERT_FALSE(dispatcher.handler(7).isNull());
    EXPECT_TRUE(dispatcher.handler(9).isNull());
    addUpdatedHandler();
    ASSERT_FALSE(dispatcher.handler(9).isNull());
    EXPECT_NE(dynamic_cast<RecordHandler const*>(dispatcher.handler(5).get()), nullptr);
    EXPECT_NE(dynamic_cast<AutoExemptHandler const*>(dispatcher.handler(7).get()), nullptr);
    EXPECT_NE(dynamic_cast<UpdatedHandler const*>(dispatcher.handler(9).get()), nullptr);
    for (unsigned int const type : {5U, 7U, 9U}) {
        EXPECT_EQ(dispatcher.handler(type)->type(), type);
        EXPECT_TRUE(dispatcher.handler(type)->mayTakeLong());
    }
}

} // namespace
} // namespace Vellum::GreyList
