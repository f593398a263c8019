// The handlers, called directly: what needs no database.
#include "mmsreputation/MMSReputationDisplay.h"

#include "foundation/ipc/Dispatcher.h"
#include "tests/support/BesideAListing.h"
#include "tests/support/LoadedEndpoints.h"
#include "tests/support/OwnProcess.h"
#include "tests/support/ScriptedSocket.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ctime>

namespace Vellum::MMSReputation {
namespace {

using IPC::Pdu;
using testing::ElementsAre;
using testing::HasSubstr;

std::string packetUnit(std::string const& number, std::uint32_t score, std::int64_t expiry) {
    DisplayPacket const packet = displayPacket(number, score, expiry);
    return rawUnit(22, {reinterpret_cast<char const*>(&packet), sizeof packet});
}
std::string countUnit(std::int32_t count) {
    return rawUnit(3, {reinterpret_cast<char const*>(&count), sizeof count});
}
std::string const endUnit = rawUnit(4);

Pdu request(unsigned int type, std::string const& payload) {
    return {type, Buffer(payload.data(), static_cast<unsigned int>(payload.size()), true)};
}

class EndpointDisplay : public testing::Test, public LoadedEndpoints {
  protected:
    static int list(ScriptedClient& client) { return EntryRetrievalHandler().task(client.connection, Pdu(20, 0U)); }
    static int remove(std::string const& number) {
        ScriptedClient client;
        int const status = EntryRemovalHandler().task(client.connection, request(23, number));
        EXPECT_EQ(client.socket.sent, "");
        return status;
    }
};

TEST(EndpointPacket, IsThese48Bytes) {
    std::string expected("+15555550100");
    expected.resize(36, '\0');
    expected += std::string("\x04\x03\x02\x01", 4);
    expected += std::string("\x88\x77\x66\x55\x44\x33\x22\x11", 8);
    DisplayPacket const packet = displayPacket("+15555550100", 0x01020304, 0x1122334455667788);
    EXPECT_EQ(std::string(reinterpret_cast<char const*>(&packet), sizeof packet), expected);
}

TEST(EndpointPacket, NumberIsCutAt35Characters) {
    std::string const digits = "1234567890123456789012345678901234567890";
    EXPECT_STREQ(displayPacket(digits.substr(0, 34), 0, 0).msisdn, digits.substr(0, 34).c_str());
    EXPECT_STREQ(displayPacket(digits.substr(0, 35), 0, 0).msisdn, digits.substr(0, 35).c_str());
    EXPECT_STREQ(displayPacket(digits.substr(0, 36), 0, 0).msisdn, digits.substr(0, 35).c_str());
    EXPECT_STREQ(displayPacket(digits, 0, 0).msisdn, digits.substr(0, 35).c_str());
    EXPECT_STREQ(displayPacket("", 0, -1).msisdn, "");
}

TEST_F(EndpointDisplay, EmptyCacheIsACountOfZeroAndTheEndMarker) {
    ScriptedClient client;
    EXPECT_EQ(list(client), 0);
    EXPECT_EQ(client.socket.sent, countUnit(0) + endUnit);
    EXPECT_TRUE(m_log.lines().empty());
}

TEST_F(EndpointDisplay, EmptyCacheNeedsNoConfiguration) {
    NoConfiguration const none;
    ScriptedClient client;
    EXPECT_EQ(list(client), 0);
    EXPECT_EQ(client.socket.sent, countUnit(0) + endUnit);
}

TEST_F(EndpointDisplay, EntriesComeInAscendingOrderWithScoreAndExpiry) {
    std::uint32_t const slice = currentSlice();
    add(3, slice + 5, 4, 3, 4102444800L); // a slice ahead is scored until long after this test
    add(1);
    add(2, slice - 40, 9, 9, -7);
    m_cache->blacklist(subscriber(4));
    ScriptedClient client;
    EXPECT_EQ(list(client), 0);
    EXPECT_EQ(client.socket.sent, countUnit(3) + packetUnit("15555550001", 0, 0) + packetUnit("15555550002", 0, -7) +
                                      packetUnit("15555550003", 7, 4102444800L) + endUnit);
    EXPECT_EQ(client.socket.sent.size(), 12U + 3 * 56U + 8U);
}

TEST_F(EndpointDisplay, HandleWithoutAnEntryIsCountedAndNotSent) {
    m_cache->add(subscriber(1), RefEntry(false));
    add(2);
    ScriptedClient client;
    EXPECT_EQ(list(client), 0);
    EXPECT_EQ(client.socket.sent, countUnit(2) + packetUnit("15555550002", 0, 0) + endUnit);
}

TEST_F(EndpointDisplay, StopAfterTheFirstPacketEndsTheListingThere) {
    for (unsigned int n = 0; n < 3; ++n) {
        add(n);
    }
    ScriptedClient client;
    client.socket.arriving = {rawUnit(4)};
    EXPECT_EQ(list(client), 0);
    EXPECT_EQ(client.socket.sent, countUnit(3) + packetUnit("15555550000", 0, 0) + endUnit);
}

TEST_F(EndpointDisplay, AnyOtherUnitIsReadAndTheListingGoesOn) {
    for (unsigned int n = 0; n < 5; ++n) {
        add(n);
    }
    ScriptedClient client;
    client.socket.arriving = {rawUnit(20), rawUnit(77, std::string(1024, 'x')), rawUnit(4)};
    EXPECT_EQ(list(client), 0);
    EXPECT_EQ(client.socket.sent.size(), 12U + 3 * 56U + 8U) << "stopped by the third unit";
}

TEST_F(EndpointDisplay, ListingHoldsBothLocksSharedToTheEnd) {
    std::uint32_t const slice = currentSlice();
    RefEntry const entry = add(1, slice, 1, 0);
    auto const waitsForEntries = [] {
        return Entry::s_mutex.isClaimed();
    };
    auto const waitsForCache = [this] {
        return m_cache->lock.isClaimed();
    };
    auto const never = [] {
        return false;
    };
    ScriptedClient newSlice;
    EXPECT_FALSE(doneBeforeTheEnd(
        newSlice, waitsForEntries, [&] { entry->increment(AttributeType::spam, slice + 1); }, list));
    ScriptedClient adds;
    EXPECT_FALSE(doneBeforeTheEnd(
        adds, waitsForCache, [&] { add(2); }, list));
    m_cache->remove(subscriber(2));
    ScriptedClient reads;
    EXPECT_TRUE(doneBeforeTheEnd(
        reads, never,
        [&] {
            SharedLock const entries(Entry::s_mutex);
            SharedLock const hold(m_cache->lock);
        },
        list))
        << "other readers go beside a listing";
    ScriptedClient counts;
    EXPECT_TRUE(doneBeforeTheEnd(
        counts, never, [&] { entry->increment(AttributeType::spam, slice + 1); }, list))
        << "a message in a slice that is there goes beside a listing";
    ExclusiveLock const entries(Entry::s_mutex); // free again
    ExclusiveLock const hold(m_cache->lock);
}

TEST_F(EndpointDisplay, ListingThatFailsIsLoggedAndNoEndMarkerFollows) {
    add(1);
    ScriptedClient client;
    client.socket.onSend = [](std::uint32_t type) {
        if (type == 22) {
            throw Exception("Client", 4).stringParameter("is gone");
        }
    };
    EXPECT_EQ(list(client), -1);
    EXPECT_EQ(client.socket.sent, countUnit(1));
    auto const records = m_log.lines();
    ASSERT_EQ(records.size(), 1U);
    EXPECT_EQ(records[0].code, 0x3000175U);
    EXPECT_EQ(records[0].format, "%s");
    EXPECT_EQ(records[0].text, "Client (code 4): is gone");
}

TEST_F(EndpointDisplay, ListingWithoutConfigurationFails) {
    add(1);
    NoConfiguration const none;
    ScriptedClient client;
    EXPECT_EQ(list(client), -1);
    ASSERT_EQ(m_log.records(0x3000175).size(), 1U);
    EXPECT_THAT(m_log.records(0x3000175)[0].text, HasSubstr("Reputation::Configuration is null"));
}

TEST_F(EndpointDisplay, ListingDoesNotCountAsAUse) {
    for (unsigned int n = 0; n < Cache::mostEntries; ++n) {
        add(n);
    }
    ScriptedClient client;
    EXPECT_EQ(list(client), 0);
    add(Cache::mostEntries);
    EXPECT_FALSE(holds(*m_cache, subscriber(0)));
    EXPECT_TRUE(holds(*m_cache, subscriber(1)));
}

TEST_F(EndpointDisplay, RemovalDropsTheEntryAndNothingElse) {
    add(1, currentSlice(), 1, 0, 4102444800L);
    add(2);
    m_cache->blacklist(subscriber(1));
    m_cache->exempt(subscriber(1));
    EXPECT_EQ(remove("15555550001"), 0);
    EXPECT_FALSE(holds(*m_cache, subscriber(1)));
    EXPECT_TRUE(holds(*m_cache, subscriber(2)));
    EXPECT_TRUE(m_cache->isBlacklisted(subscriber(1)));
    EXPECT_TRUE(m_cache->isExempt(subscriber(1)));
    EXPECT_EQ(remove("15555550001"), 0) << "absent";
    EXPECT_TRUE(m_log.records().empty());
    EXPECT_THAT(m_log.notes(),
                ElementsAre("action=remove, subscriber=15555550001", "action=remove, subscriber=15555550001"));
}

TEST_F(EndpointDisplay, RemovalOfNothingOrOfNoNumberDoesNothing) {
    add(1);
    for (std::string const& number :
         {std::string(), std::string("x"), std::string("15555550001 "), std::string("15555550001\0", 12),
          std::string("'; drop table mms_blacklist; --"), std::string(40, '1'), std::string(100000, 'a')}) {
        EXPECT_EQ(remove(number), 0) << number;
    }
    EXPECT_TRUE(holds(*m_cache, subscriber(1)));
    EXPECT_THAT(m_log.notes(), ElementsAre("action=remove, subscriber=" + std::string(40, '1'))) << "it could be one";
    EXPECT_TRUE(m_log.records().empty());
}

TEST_F(EndpointDisplay, RequestsOfAnotherTypeAreRefusedWithTheirRecords) {
    ScriptedClient client;
    EXPECT_EQ(UpdatedHandler().task(client.connection, Pdu(20, 0U)), -1);
    EXPECT_EQ(EntryRetrievalHandler().task(client.connection, Pdu(21, 0U)), -1);
    EXPECT_EQ(EntryBatchRetrievalHandler().task(client.connection, Pdu(23, 0U)), -1);
    EXPECT_EQ(EntryRemovalHandler().task(client.connection, Pdu(19, 0U)), -1);
    EXPECT_EQ(client.socket.sent, "");
    auto const records = m_log.lines();
    ASSERT_EQ(records.size(), 4U);
    for (auto const& record : records) {
        EXPECT_EQ(record.level, 0);
        EXPECT_EQ(record.format, "%s\x01%d");
    }
    EXPECT_EQ(records[0].code, 0x3000180U);
    EXPECT_THAT(records[0].fields, ElementsAre("MMSReputationDatabase", "609"));
    EXPECT_EQ(records[1].code, 0x3000174U);
    EXPECT_THAT(records[1].fields, ElementsAre("MMSReputationDisplay", "110"));
    EXPECT_EQ(records[2].code, 0x3000176U);
    EXPECT_THAT(records[2].fields, ElementsAre("MMSReputationDisplay", "179"));
    EXPECT_EQ(records[3].code, 0x3000167U);
    EXPECT_THAT(records[3].fields, ElementsAre("MMSReputation", "380"));
}

TEST_F(EndpointDisplay, SelectorOfOneToThreeBytesIsRefused) {
    for (std::size_t const bytes : {1U, 2U, 3U}) {
        m_log.clear();
        ScriptedClient client;
        EXPECT_EQ(UpdatedHandler().task(client.connection, request(19, std::string(bytes, '\1'))), -1);
        ASSERT_EQ(m_log.lines().size(), 1U);
        EXPECT_EQ(m_log.lines()[0].code, 0x3000182U);
        EXPECT_EQ(m_log.lines()[0].format, "%s");
        EXPECT_THAT(m_log.lines()[0].text, HasSubstr("a selector of " + std::to_string(bytes) + " bytes, expected 4"));
        EXPECT_TRUE(RefCache::instance(nullptr, 255) == m_cache);
    }
}

TEST_F(EndpointDisplay, RefreshBeforeItsTimeIsOnlyTheEndMarker) {
    ScoreTable::nextRefresh = std::time(nullptr) + 100;
    ScriptedClient client;
    EXPECT_EQ(EntryBatchRetrievalHandler("/nonexistent/scores").task(client.connection, Pdu(21, 0U)), 0);
    EXPECT_EQ(client.socket.sent, endUnit);
    EXPECT_TRUE(m_log.lines().empty());
}

TEST_F(EndpointDisplay, RefreshAtItsTimeIsTriedAndAFailureLetsTheNextOneTryAgain) {
    for (int twice = 0; twice < 2; ++twice) {
        m_log.clear();
        ScoreTable::nextRefresh = std::time(nullptr);
        long const next = ScoreTable::nextRefresh;
        ScriptedClient client;
        EXPECT_EQ(EntryBatchRetrievalHandler("/nonexistent/scores").task(client.connection, Pdu(21, 0U)), -1);
        EXPECT_EQ(client.socket.sent, "");
        ASSERT_EQ(m_log.lines().size(), 1U);
        EXPECT_EQ(m_log.lines()[0].code, 0x3000177U);
        EXPECT_EQ(m_log.lines()[0].format, "%s");
        EXPECT_THAT(m_log.lines()[0].text, HasSubstr("/nonexistent"));
        EXPECT_EQ(long(ScoreTable::nextRefresh), next);
    }
}

TEST(EndpointDisplayDeathTest, WithoutACacheAListIsEmptyARefreshFailsAndARemovalDoesNothing) {
    expectInOwnProcess([] {
        CapturingLogger log;
        InstalledConfiguration const configuration;
        ScriptedClient client;
        EXPECT_EQ(EntryRetrievalHandler().task(client.connection, Pdu(20, 0U)), 0);
        EXPECT_EQ(client.socket.sent, countUnit(0) + endUnit);
        client.socket.sent.clear();
        EXPECT_EQ(EntryBatchRetrievalHandler().task(client.connection, Pdu(21, 0U)), -1);
        EXPECT_EQ(EntryRemovalHandler().task(client.connection, request(23, "15555550001")), 0);
        EXPECT_EQ(client.socket.sent, "");
        EXPECT_EQ(log.records(0x3000165).size(), 3U) << "each has waited in vain";
        ASSERT_EQ(log.records(0x3000177).size(), 1U);
        EXPECT_THAT(log.records(0x3000177)[0].text, HasSubstr("no cache is loaded"));
        EXPECT_EQ(log.lines().size(), 4U);
    });
}

TEST(EndpointHandlers, AreRegisteredUnderTheirTypesWithTheirFlags) {
    addUpdatedHandler();
    addEntryRetrievalHandler();
    addEntryRemovalHandler();
    auto const& dispatcher = IPC::Dispatcher::instance(29001);
    for (auto const& [type, mayTakeLong] : {std::pair{19U, true}, {20U, true}, {21U, true}, {23U, false}}) {
        IPC::Handler const handler = dispatcher.handler(type);
        ASSERT_FALSE(handler.isNull()) << type;
        EXPECT_EQ(handler->type(), type);
        EXPECT_EQ(handler->mayTakeLong(), mayTakeLong) << type;
    }
    EXPECT_NE(dynamic_cast<UpdatedHandler*>(dispatcher.handler(19).get()), nullptr);
    EXPECT_NE(dynamic_cast<EntryRetrievalHandler*>(dispatcher.handler(20).get()), nullptr);
    EXPECT_NE(dynamic_cast<EntryBatchRetrievalHandler*>(dispatcher.handler(21).get()), nullptr);
    EXPECT_NE(dynamic_cast<EntryRemovalHandler*>(dispatcher.handler(23).get()), nullptr);
}

} // namespace
} // namespace Vellum::MMSReputation
