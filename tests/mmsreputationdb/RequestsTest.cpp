// Reload, score table, listing and removal through a real dispatcher and a real database.
#include "tests/support/EndpointDaemon.h"
#include "tests/support/EndpointTables.h"
#include "tests/support/RawClient.h"
#include "tests/support/UnreachableServer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <ctime>
#include <filesystem>
#include <thread>

namespace Vellum::MMSReputation {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

std::string selector(std::uint32_t what) {
    return {reinterpret_cast<char const*>(&what), sizeof what};
}
std::string countUnit(std::int32_t count) {
    return rawUnit(3, {reinterpret_cast<char const*>(&count), sizeof count});
}
std::string entryUnit(std::string const& number, std::uint32_t score, std::int64_t expiry) {
    DisplayPacket const packet = displayPacket(number, score, expiry);
    return rawUnit(22, {reinterpret_cast<char const*>(&packet), sizeof packet});
}
std::string const endUnit = rawUnit(4);

class EndpointRequests : public EndpointTables {
  protected:
    // Sends a request that nobody answers, and waits until it is done with: its connection takes the next one then.
    void request(unsigned int type, std::string const& payload) {
        RawClient client(m_daemon.port());
        client.send(rawUnit(type, payload) + rawUnit(20));
        client.read(12);
        m_cache = RefCache::instance(nullptr, 255);
    }
    std::string refresh() const {
        RawClient client(m_daemon.port());
        client.send(rawUnit(21));
        return client.readUntilEndOr(endUnit.size());
    }
    void fillTables() const {
        std::uint32_t const slice = currentSlice();
        run({"insert into mms_reputation values " + values("1", slice, "3, 4"),
             "insert into mms_reputation_expiry values ('1', 0)", "insert into mms_exempt values ('11')",
             "insert into mms_blacklist values ('21')"});
    }

    EndpointDaemon m_daemon;
};

TEST_F(EndpointRequests, ReloadWithoutAPayloadLoadsEverythingAndAnswersNothing) {
    fillTables();
    add(1);
    RawClient client(m_daemon.port());
    client.send(rawUnit(19) + rawUnit(20));
    EXPECT_EQ(client.read(12 + 56 + 8), countUnit(1) + entryUnit("1", 7, 0) + endUnit)
        << "nothing but the listing that was asked for next";
    m_cache = RefCache::instance(nullptr, 255);
    EXPECT_THAT(exemptHeld(), ElementsAre("11"));
    EXPECT_THAT(blacklistHeld(), ElementsAre("21"));
    auto const records = m_log.lines();
    ASSERT_EQ(records.size(), 1U);
    EXPECT_EQ(records[0].code, 0x3000181U);
    EXPECT_EQ(records[0].format, "%s");
    EXPECT_EQ(records[0].text, " ");
}

TEST_F(EndpointRequests, ReloadWithPayloadTwoReplacesTheBlacklistOnly) {
    fillTables();
    add(1);
    m_cache->blacklist(subscriber(8));
    m_cache->exempt(subscriber(9));
    request(19, selector(2));
    EXPECT_THAT(blacklistHeld(), ElementsAre("21"));
    EXPECT_THAT(exemptHeld(), ElementsAre("15555550009"));
    EXPECT_THAT(held(), ElementsAre("15555550001 0"));
}

TEST_F(EndpointRequests, ReloadWithPayloadOneReplacesTheExemptListOnly) {
    fillTables();
    m_cache->blacklist(subscriber(8));
    request(19, selector(1));
    EXPECT_THAT(blacklistHeld(), ElementsAre("15555550008"));
    EXPECT_THAT(exemptHeld(), ElementsAre("11"));
}

TEST_F(EndpointRequests, BytesBehindTheSelectorAreIgnored) {
    fillTables();
    m_cache->exempt(subscriber(9));
    request(19, selector(2) + "12345");
    EXPECT_THAT(blacklistHeld(), ElementsAre("21"));
    EXPECT_THAT(exemptHeld(), ElementsAre("15555550009"));
}

TEST_F(EndpointRequests, ShortSelectorEndsTheConnectionAndReloadsNothing) {
    fillTables();
    RawClient client(m_daemon.port());
    client.send(rawUnit(19, "\2\0") + rawUnit(20));
    EXPECT_EQ(client.readUntilEnd(), "");
    EXPECT_TRUE(m_log.waitForRecord(0x3000182).has_value());
    EXPECT_THAT(blacklistHeld(), IsEmpty());
}

TEST_F(EndpointRequests, ReloadWhileTheServerIsAwayKeepsTheCache) {
    add(1);
    UnreachableServer const away;
    RawClient client(m_daemon.port());
    client.send(rawUnit(19));
    EXPECT_EQ(client.readUntilEnd(), "");
    auto const failed = m_log.waitForRecord(0x3000182);
    ASSERT_TRUE(failed.has_value());
    EXPECT_EQ(failed->format, "%s");
    EXPECT_THAT(failed->text, StartsWith("Connection (code 4)"));
    EXPECT_TRUE(RefCache::instance(nullptr, 255) == m_cache);
}

TEST_F(EndpointRequests, RefreshWritesTheScoreTableAndLeavesNoFile) {
    run({"insert into mms_repuation_score values ('old', 1, 1)"});
    std::uint32_t const slice = currentSlice() + 5;
    add(2, slice, 3, 4, 1700000000);
    add(1, slice, 1, 0);
    long const before = std::time(nullptr);
    EXPECT_EQ(refresh(), endUnit);
    EXPECT_THAT(scoreRows(), ElementsAre("15555550001|1|0", "15555550002|7|1700000000"));
    EXPECT_FALSE(std::filesystem::exists(m_daemon.dumpPath()));
    EXPECT_GE(long(ScoreTable::nextRefresh), before + 300);
    EXPECT_LE(long(ScoreTable::nextRefresh), std::time(nullptr) + 300);
    EXPECT_TRUE(m_log.lines().empty());
}

TEST_F(EndpointRequests, SecondRefreshWithin300SecondsLeavesTableAndFileAlone) {
    add(1);
    EXPECT_EQ(refresh(), endUnit);
    add(2);
    run({"insert into mms_repuation_score values ('7', 1, 1)"});
    EXPECT_THAT(sent([&] { EXPECT_EQ(refresh(), endUnit); }), IsEmpty());
    EXPECT_THAT(scoreRows(), ElementsAre("15555550001|0|0", "7|1|1"));
    ScoreTable::nextRefresh = std::time(nullptr);
    EXPECT_EQ(refresh(), endUnit);
    EXPECT_THAT(scoreRows(), ElementsAre("15555550001|0|0", "15555550002|0|0"));
}

TEST_F(EndpointRequests, NumbersThatShareTheirFirst35CharactersDoNotFailTheRefresh) {
    std::string const shared(35, '7');
    add(MSISDN(shared));
    add(MSISDN(shared + "1"))->blacklistExpiry(5);
    add(MSISDN(shared + "2"))->blacklistExpiry(6);
    add(1);
    EXPECT_EQ(refresh(), endUnit);
    EXPECT_THAT(scoreRows(), ElementsAre("15555550001|0|0", shared + "|0|6"));
}

TEST_F(EndpointRequests, RefreshThatFailsIsLoggedAndTheNextTriesAgain) {
    add(1);
    run({"drop table mms_repuation_score"});
    EXPECT_EQ(refresh(), "");
    auto const failed = m_log.waitForRecord(0x3000177);
    ASSERT_TRUE(failed.has_value());
    EXPECT_EQ(failed->format, "%s");
    EXPECT_THAT(failed->text, HasSubstr("mms_repuation_score"));
    EXPECT_EQ(long(ScoreTable::nextRefresh), 0);
    EXPECT_FALSE(std::filesystem::exists(m_daemon.dumpPath()));
    Database(address()).createTable(scoreTable);
    EXPECT_EQ(refresh(), endUnit);
    EXPECT_THAT(scoreRows(), ElementsAre("15555550001|0|0"));
}

TEST_F(EndpointRequests, RefreshesAtOnceWriteOnce) {
    for (unsigned int n = 0; n < 2000; ++n) {
        add(n);
    }
    Rows const statements = sent([&] {
        std::vector<std::thread> clients;
        for (int n = 0; n < 6; ++n) {
            clients.emplace_back([&] { EXPECT_EQ(refresh(), endUnit); });
        }
        for (auto& client : clients) {
            client.join();
        }
    });
    long const deletes = std::count_if(statements.begin(), statements.end(),
                                       [](std::string const& statement) { return statement.find("DELETE FROM") == 0; });
    EXPECT_EQ(deletes, 1) << "the others waited and found the table just written";
    EXPECT_EQ(server().query("select count(*) from mms_repuation_score"), Rows{"2000"});
}

TEST_F(EndpointRequests, NoLockIsHeldWhileTheDatabaseIsWaitedFor) {
    add(1);
    Vellum::Database::Connection blocker(address(), "fe_sender_history");
    blocker.run("LOCK TABLES mms_repuation_score WRITE", "test");
    RawClient client(m_daemon.port());
    client.send(rawUnit(21));
    // The refresh waits for the table once the server shows it.
    while (
        server().query("select count(*) from information_schema.processlist where state like 'Waiting for table%'") ==
        Rows{"0"}) {
        std::this_thread::yield();
    }
    {
        ExclusiveLock const entries(Entry::s_mutex);
        ExclusiveLock const hold(m_cache->lock);
    }
    add(2)->increment(AttributeType::spam, 5);
    blocker.run("UNLOCK TABLES", "test");
    EXPECT_EQ(client.read(endUnit.size()), endUnit);
}

TEST_F(EndpointRequests, RemovalIsDoneAndNotAnswered) {
    add(1);
    add(2);
    request(23, "15555550001");
    EXPECT_THAT(held(), ElementsAre("15555550002 0"));
    request(23, "");
    request(23, "'; --");
    EXPECT_THAT(held(), ElementsAre("15555550002 0"));
}

} // namespace
} // namespace Vellum::MMSReputation
