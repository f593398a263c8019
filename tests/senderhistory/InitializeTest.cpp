// The start of the process that serves the state. It happens once in a process, so each test has one of its own.
#include "foundation/cron/Crontab.h"
#include "foundation/ipc/Dispatcher.h"
#include "greylist/CronJobBackup.h"
#include "mmsreputation/CronJobBackup.h"
#include "mmsreputation/RefCache.h"
#include "mmsreputation/Reports.h"
#include "reputation/Cache.h"
#include "reputation/CronJobBackup.h"
#include "reputation/LoadReport.h"
#include "senderhistory/SenderHistoryDatabase.h"
#include "tests/support/EndpointConfiguration.h"
#include "tests/support/GreylistTables.h"
#include "tests/support/OwnProcess.h"
#include "tests/support/ReputationConfiguration.h"

#include <gtest/gtest.h>

#include <thread>

namespace Vellum {
namespace {

// A server, its database with a row in each table, and a configuration.
struct Start {
    Start() {
        senderHistoryDatabaseCreate();
        server.run({"insert into grey_list values ('192.0.2.0/24', 'a@b', 'c@d', 1, 2)",
                    "insert into autoexempt values ('192.0.2.0/24', 'd', 3, 4)",
                    "insert into sender_reputation values ('192.0.2.1', 5, 1, 2, 3, 4, 5)",
                    "insert into sender_reputation_state values ('192.0.2.1', 2)",
                    "insert into mms_exempt values ('11')", "insert into mms_blacklist values ('21')"},
                   GreyList::databaseName);
        configuration->enabled = false; // no backup of its own, whatever the time is
        reputation.enabled = false;
        endpoints->master = false;
    }
    static bool reputationHandled() { return handled(10) && handled(12) && handled(13) && handled(26); }
    static bool handled(unsigned int type) { return !IPC::Dispatcher::instance(29001).handler(type).isNull(); }
    static bool endpointsHandled() { return handled(19) && handled(20) && handled(21) && handled(23); }
    static bool ratesHandled() { return handled(28) && handled(30); }
    static std::vector<Cron::Job> jobs() { return Cron::Crontab::instance(false).jobs(); }
    template <class Cache>
    static std::uint32_t loaded() {
        auto& cache = **Cache::instance();
        SharedLock const hold(cache.lock);
        return cache.sizeNoLock();
    }

    CapturingLogger log;
    PrivateMariaDb server;
    GreyList::InstalledConfiguration configuration;
    Reputation::InstalledConfiguration reputation;
    MMSReputation::InstalledConfiguration endpoints;
};

TEST(InitializeDeathTest, LoadsRegistersAndSchedules) {
    expectInOwnProcess([] {
        Start const start;
        EXPECT_FALSE(Start::handled(5) || Start::handled(7) || Start::handled(9));
        EXPECT_FALSE(Start::handled(10) || Start::handled(12) || Start::handled(13) || Start::handled(26));
        EXPECT_FALSE(Start::handled(19) || Start::handled(20) || Start::handled(21) || Start::handled(23));
        EXPECT_FALSE(Start::handled(28) || Start::handled(30));
        EXPECT_TRUE(Start::jobs().empty());
        senderHistoryDatabaseInitialize();
        EXPECT_EQ(Start::loaded<GreyList::TupleCache>(), 1U);
        EXPECT_EQ(Start::loaded<GreyList::DynamicExemptCache>(), 1U);
        EXPECT_EQ(Start::loaded<Reputation::RefCache>(), 1U);
        EXPECT_TRUE(Start::handled(5) && Start::handled(7) && Start::handled(9));
        EXPECT_TRUE(Start::ratesHandled());
        EXPECT_TRUE(Start::reputationHandled());
        EXPECT_TRUE(Start::endpointsHandled());
        MMSReputation::RefCache const endpoints = MMSReputation::RefCache::instance(nullptr, 255);
        ASSERT_FALSE(endpoints.isNull());
        EXPECT_TRUE(endpoints->isExempt(MSISDN("11")));
        EXPECT_TRUE(endpoints->isBlacklisted(MSISDN("21")));
        ASSERT_EQ(Start::jobs().size(), 3U);
        Cron::Job const first = Start::jobs()[0];
        EXPECT_NE(dynamic_cast<Reputation::CronJobBackup const*>(first.get()), nullptr);
        EXPECT_EQ(first->period()->interval(), 3600U);
        EXPECT_EQ(first->period()->offset(), 1800U);
        Cron::Job const second = Start::jobs()[1];
        EXPECT_NE(dynamic_cast<GreyList::CronJobBackup const*>(second.get()), nullptr);
        EXPECT_EQ(second->period()->interval(), 3600U);
        EXPECT_EQ(second->period()->offset(), 2400U);
        Cron::Job const third = Start::jobs()[2];
        EXPECT_NE(dynamic_cast<MMSReputation::CronJobBackup const*>(third.get()), nullptr);
        EXPECT_EQ(third->period()->interval(), 3600U);
        EXPECT_EQ(third->period()->offset(), 2100U);
        Cron::Crontab::instance(false).stop();
    });
}

TEST(InitializeDeathTest, ExemptionsThatCannotBeReadEndIt) {
    expectInOwnProcess([] {
        Start start;
        start.server.run({"insert into autoexempt values ('192.0.2.0/24', '', 3, 4)"}, GreyList::databaseName);
        auto const refused = refusalOf([] { senderHistoryDatabaseInitialize(); });
        ASSERT_TRUE(refused.has_value());
        EXPECT_EQ(refused->where(), "DynamicExemptDatabase::read");
        EXPECT_EQ(Start::loaded<GreyList::TupleCache>(), 1U);
        EXPECT_TRUE(Start::handled(5) && Start::handled(7) && Start::handled(9)) << "they come before";
        EXPECT_FALSE(Start::handled(10) || Start::handled(12) || Start::handled(13) || Start::handled(26));
        EXPECT_EQ(Start::loaded<Reputation::RefCache>(), 0U);
        EXPECT_FALSE(Start::handled(19)) << "the endpoints come after";
        EXPECT_FALSE(Start::handled(28) || Start::handled(30)) << "rate control comes after";
        EXPECT_TRUE(Start::jobs().empty()) << "backups come last";
        auto const records = start.log.records(0x300019E);
        ASSERT_EQ(records.size(), 1U);
        EXPECT_EQ(records[0].fields[1], "441");
    });
}

TEST(InitializeDeathTest, TuplesThatCannotBeReadAreLoggedAndDoNotEndIt) {
    expectInOwnProcess([] {
        Start start;
        start.server.run({"insert into grey_list values ('192.0.2.0/24', '', 'c@d', 3, 4)"}, GreyList::databaseName);
        senderHistoryDatabaseInitialize();
        EXPECT_EQ(Start::loaded<GreyList::TupleCache>(), 0U);
        EXPECT_EQ(Start::loaded<GreyList::DynamicExemptCache>(), 1U);
        EXPECT_FALSE(GreyList::LoadReport::last().complete());
        EXPECT_EQ(Start::jobs().size(), 3U);
        EXPECT_EQ(start.log.records(0x300019E).size(), 1U);
        Cron::Crontab::instance(false).stop();
    });
}

TEST(InitializeDeathTest, EndpointsThatCannotBeReadAreLoggedAndDoNotEndIt) {
    expectInOwnProcess([] {
        Start start;
        start.server.run({"insert into mms_exempt values ('')"}, GreyList::databaseName);
        senderHistoryDatabaseInitialize();
        EXPECT_EQ(start.log.records(0x300017D).size(), 1U);
        EXPECT_FALSE(MMSReputation::LoadReport::last().complete());
        EXPECT_TRUE(Start::endpointsHandled());
        EXPECT_EQ(Start::jobs().size(), 3U);
        Cron::Crontab::instance(false).stop();
    });
}

TEST(InitializeDeathTest, EndpointsAreLoadedBeforeTheirHandlersAreThere) {
    expectInOwnProcess([] {
        Start start;
        Database::Connection holder(start.server.admin(), GreyList::databaseName);
        holder.run("LOCK TABLES mms_exempt WRITE", "test");
        std::thread initializing([] { senderHistoryDatabaseInitialize(); });
        while (start.server
                   .query("select 1 from information_schema.PROCESSLIST where USER = 'vellum' and INFO like "
                          "'select * from mms_exempt%' and STATE like 'Waiting%'")
                   .empty()) {
            std::this_thread::yield();
        }
        EXPECT_TRUE(Start::reputationHandled());
        EXPECT_FALSE(Start::handled(19) || Start::handled(20) || Start::handled(21) || Start::handled(23));
        EXPECT_FALSE(Start::ratesHandled());
        holder.run("UNLOCK TABLES", "test");
        initializing.join();
        EXPECT_TRUE(Start::endpointsHandled());
        Cron::Crontab::instance(false).stop();
    });
}

TEST(InitializeDeathTest, ReputationsThatCannotBeReadAreLoggedAndDoNotEndIt) {
    expectInOwnProcess([] {
        Start start;
        start.server.run({"insert into sender_reputation values ('nowhere', 5, 1, 2, 3, 4, 5)",
                          "insert into sender_reputation_state values ('nowhere', 2)"},
                         GreyList::databaseName);
        senderHistoryDatabaseInitialize();
        EXPECT_EQ(Start::loaded<GreyList::TupleCache>(), 1U);
        EXPECT_EQ(Start::loaded<Reputation::RefCache>(), 0U);
        EXPECT_FALSE(Reputation::LoadReport::last().loaded);
        EXPECT_TRUE(GreyList::LoadReport::last().complete());
        EXPECT_TRUE(Start::reputationHandled());
        EXPECT_EQ(Start::jobs().size(), 3U);
        EXPECT_EQ(start.log.records(0x3000188).size(), 1U);
        Cron::Crontab::instance(false).stop();
    });
}

TEST(InitializeDeathTest, ReputationsAreLoadedBeforeTheirHandlersAreThere) {
    expectInOwnProcess([] {
        Start start;
        Database::Connection holder(start.server.admin(), GreyList::databaseName);
        holder.run("LOCK TABLES sender_reputation WRITE", "test");
        std::thread initializing([] { senderHistoryDatabaseInitialize(); });
        while (start.server
                   .query("select 1 from information_schema.PROCESSLIST where USER = 'vellum' and INFO like "
                          "'select * from sender_reputation%' and STATE like 'Waiting%'")
                   .empty()) {
            std::this_thread::yield();
        }
        EXPECT_TRUE(Start::handled(5) && Start::handled(7) && Start::handled(9));
        EXPECT_FALSE(Start::handled(10) || Start::handled(12) || Start::handled(13) || Start::handled(26));
        holder.run("UNLOCK TABLES", "test");
        initializing.join();
        EXPECT_TRUE(Start::reputationHandled());
        Cron::Crontab::instance(false).stop();
    });
}

TEST(InitializeDeathTest, CachesAreLoadedBeforeTheirHandlersAreThere) {
    expectInOwnProcess([] {
        Start start;
        Database::Connection holder(start.server.admin(), GreyList::databaseName);
        holder.run("LOCK TABLES grey_list WRITE", "test");
        std::thread initializing([] { senderHistoryDatabaseInitialize(); });
        while (start.server
                   .query("select 1 from information_schema.PROCESSLIST where USER = 'vellum' and INFO like "
                          "'select * from grey_list%' and STATE like 'Waiting%'")
                   .empty()) {
            std::this_thread::yield();
        }
        EXPECT_FALSE(Start::handled(5) || Start::handled(7) || Start::handled(9));
        holder.run("UNLOCK TABLES", "test");
        initializing.join();
        EXPECT_TRUE(Start::handled(5) && Start::handled(7) && Start::handled(9));
        Cron::Crontab::instance(false).stop();
    });
}

} // namespace
} // namespace Vellum
