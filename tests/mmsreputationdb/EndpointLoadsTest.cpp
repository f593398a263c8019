// Endpoints in the daemon: loads that are tried again, and the last backup.
#include "daemon/EndpointConfiguration.h"
#include "daemon/LastBackup.h"
#include "daemon/LoadKeeper.h"

#include "mmsreputation/LogCodes.h"
#include "tests/support/EndpointTables.h"
#include "tests/support/FakeDatabaseDaemon.h"
#include "tests/support/UnreachableServer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

namespace Vellum::Daemon {
namespace {

using MMSReputation::AttributeType;
using MMSReputation::LoadReport;
using MMSReputation::Period;
using MMSReputation::RefCache;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class EndpointInDaemon : public MMSReputation::EndpointTables {
  protected:
    static constexpr char const* inTheYear2037 = "2114377200";

    void lookAtTheCache() { m_cache = RefCache::instance(nullptr, 255); }
    std::string note() const { return m_log.notes().empty() ? "none" : m_log.notes().back(); }

    void takeLastBackup() const {
        LastBackup backup = lastEndpointBackup(m_state.fnameBackup());
        backup.enabled = m_state.haMaster();
        backup.problem = m_loads.whyNoBackup();
        Daemon::takeLastBackup(backup);
    }

    std::uint32_t const m_slice = currentSlice();
    std::string const m_at = std::to_string(m_slice);
    EndpointConfiguration m_state{{}, scriptPath()};
    LoadKeeper m_loads{endpointTables()};
};

TEST_F(EndpointInDaemon, IsTheConfigurationForItsLife) {
    auto* const before = MMSReputation::Configuration::s_instance.load();
    {
        EndpointConfiguration const state({.enabled = false, .windowMinutes = 45, .backup = false}, "/b/endpoint.sql");
        MMSReputation::Configuration const* const configuration = MMSReputation::Configuration::instance();
        EXPECT_EQ(configuration, &state);
        EXPECT_FALSE(configuration->enabled());
        EXPECT_FALSE(configuration->haMaster());
        EXPECT_EQ(configuration->windowSize(), 45U);
        EXPECT_EQ(configuration->fnameBackup(), "/b/endpoint.sql");
        EXPECT_EQ(configuration->maxEntries(), 10000U);
    }
    EXPECT_EQ(MMSReputation::Configuration::s_instance, nullptr);
    MMSReputation::Configuration::s_instance = before;
}

TEST_F(EndpointInDaemon, ChangedSettingsHoldAtOnceButForTheWindow) {
    m_state.change({.enabled = false, .windowMinutes = 60, .backup = false});
    EXPECT_FALSE(m_state.enabled());
    EXPECT_FALSE(m_state.haMaster());
    EXPECT_EQ(m_state.windowSize(), 30U);
}

TEST_F(EndpointInDaemon, WholeLoadIsNotTriedAgain) {
    load();
    EXPECT_EQ(m_loads.problem(), "");
    EXPECT_THAT(sent([&] { m_loads.tryAgain(); }), IsEmpty());
    EXPECT_TRUE(m_log.lines().empty());
}

TEST_F(EndpointInDaemon, ProblemNamesWhatWasMissed) {
    EXPECT_EQ(m_loads.problem(), "the endpoint tables could not be loaded: no load was tried yet");
    run({"insert into mms_exempt values ('')"});
    load();
    EXPECT_THAT(m_loads.problem(), HasSubstr("Invalid MSISDN Entry; row 1 of mms_exempt"));
}

TEST_F(EndpointInDaemon, LoadIsTriedAgainAndKeepsWhatWasCountedMeanwhile) {
    run({"insert into mms_reputation values ('" + std::string("1', ") + m_at + ", 5, 0), ('2', " + m_at +
             ", 7, 7), ('', 1, 1, 1)",
         "insert into mms_reputation_expiry values ('1', 0), ('2', " + std::string(inTheYear2037) + "), ('', 0)"});
    load();
    EXPECT_FALSE(LoadReport::last().entries.loaded);
    m_cache->remove(MSISDN("2")); // as if the load had not come so far
    m_cache->entry(MSISDN("1"), 0, true)->add(Period(m_slice), {6, 1});
    m_cache->entry(MSISDN("2"), 0, true)->add(Period(m_slice - 1), {1, 0});
    m_cache->entry(MSISDN("3"), 0, true)->add(Period(m_slice), {0, 2});
    m_cache->entry(MSISDN("3"), 0, true)->blacklistExpiry(77);

    m_loads.tryAgain();
    EXPECT_THAT(m_log.notes(), IsEmpty()) << "the row is still there";
    EXPECT_NE(m_loads.problem(), "");
    run({"delete from mms_reputation where msisdn = ''"});
    m_log.clear();
    m_loads.tryAgain();
    EXPECT_EQ(note(), "the endpoint tables that could not be loaded are loaded now: backups are on again");
    lookAtTheCache();
    EXPECT_EQ(m_cache->whyNotWhole(), "");
    EXPECT_THAT(held(), ElementsAre("1 0 " + m_at + ":6:1",
                                    "2 " + std::string(inTheYear2037) + " " + std::to_string(m_slice - 1) + ":1:0 " +
                                        m_at + ":7:7",
                                    "3 77 " + m_at + ":0:2"));
}

TEST_F(EndpointInDaemon, TroubleThatLastsIsLoggedWhenItBeginsChangesAndEnds) {
    run({"insert into mms_exempt values ('')"});
    m_log.clear();
    load();
    for (int minute = 0; minute < 5; ++minute) {
        m_loads.tryAgain();
    }
    ASSERT_EQ(m_log.records(MMSReputation::LogCode::readFailed).size(), 1U);
    EXPECT_THAT(m_log.records(MMSReputation::LogCode::readFailed).at(0).text, HasSubstr("row 1 of mms_exempt"));
    run({"delete from mms_exempt", "insert into mms_blacklist values ('')"});
    m_loads.tryAgain();
    m_loads.tryAgain();
    ASSERT_EQ(m_log.records(MMSReputation::LogCode::readFailed).size(), 2U);
    EXPECT_THAT(m_log.records(MMSReputation::LogCode::readFailed).at(1).text, HasSubstr("row 1 of mms_blacklist"));
    run({"delete from mms_blacklist"});
    m_loads.tryAgain();
    EXPECT_EQ(note(), "the endpoint tables that could not be loaded are loaded now: backups are on again");
    EXPECT_EQ(m_log.records(MMSReputation::LogCode::readFailed).size(), 2U);
}

TEST_F(EndpointInDaemon, MissedListsAreReadAgainWithoutTheEntries) {
    run({"insert into mms_reputation values ('1', " + m_at + ", 5, 0)",
         "insert into mms_reputation_expiry values ('1', 0)", "insert into mms_exempt values ('11'), ('')",
         "insert into mms_blacklist values ('21')"});
    load();
    m_cache->entry(MSISDN("1"), 0, true)->increment(AttributeType::spam, m_slice);
    run({"delete from mms_exempt where msisdn = ''"});
    EXPECT_THAT(sent([&] { m_loads.tryAgain(); }),
                ElementsAre(HasSubstr("SET NAMES"), "select * from mms_exempt", "select * from mms_blacklist"));
    EXPECT_EQ(m_loads.problem(), "");
    EXPECT_TRUE(RefCache::instance(nullptr, 255) == m_cache);
    EXPECT_THAT(held(), ElementsAre("1 0 " + m_at + ":6:0"));
    EXPECT_THAT(exemptHeld(), ElementsAre("11"));
    EXPECT_THAT(blacklistHeld(), ElementsAre("21"));
}

TEST_F(EndpointInDaemon, MissedEntriesThatAreAcceptedAreBackedUpAndTheListsAreStillTried) {
    run({"insert into mms_reputation values ('1', " + m_at + ", 5, 0), ('', 1, 1, 1)",
         "insert into mms_reputation_expiry values ('1', 0), ('', 0)", "insert into mms_exempt values ('11')",
         "insert into mms_blacklist values ('21'), ('')"});
    load();
    EXPECT_THAT(m_loads.whyNoBackup(), HasSubstr("Invalid EndpointReputation Entry"));
    EXPECT_TRUE(m_loads.accept());
    EXPECT_FALSE(m_loads.accept()) << "there is nothing more to accept";
    EXPECT_EQ(m_loads.whyNoBackup(), "");
    EXPECT_NE(m_loads.problem(), "") << "the lists were not read either";
    m_loads.tryAgain();
    lookAtTheCache();
    EXPECT_THAT(exemptHeld(), ElementsAre("11"));
    EXPECT_THAT(m_loads.problem(), HasSubstr("row 1 of mms_blacklist"));
    EXPECT_THAT(held(), IsEmpty()) << "what was given up, behind the refused row, is not loaded again";
    run({"delete from mms_blacklist where msisdn = ''"});
    m_loads.tryAgain();
    EXPECT_EQ(m_loads.problem(), "");
    EXPECT_THAT(blacklistHeld(), ElementsAre("21"));
    FakeDatabaseDaemon const daemon;
    takeLastBackup();
    EXPECT_EQ(daemon.requests().size(), 1U);
}

TEST_F(EndpointInDaemon, LoadThatFailsAfterAnAcceptedOneShutsTheGateAgain) {
    run({"insert into mms_reputation values ('', 1, 1, 1)", "insert into mms_reputation_expiry values ('', 0)"});
    load();
    EXPECT_TRUE(m_loads.accept());
    load();
    EXPECT_THAT(m_loads.whyNoBackup(), HasSubstr("Invalid EndpointReputation Entry"));
    EXPECT_TRUE(m_loads.accept());
}

TEST_F(EndpointInDaemon, MissedListsHoldUpNoBackup) {
    run({"insert into mms_blacklist values ('')"});
    load();
    EXPECT_NE(m_loads.problem(), "");
    EXPECT_EQ(m_loads.whyNoBackup(), "");
    EXPECT_FALSE(m_loads.accept());
}

TEST_F(EndpointInDaemon, HourlyBackupAsksWhetherItMay) {
    bool may = false;
    EndpointConfiguration const state({}, scriptPath(), [&] { return may; });
    EXPECT_FALSE(state.haMaster());
    may = true;
    EXPECT_TRUE(state.haMaster());
    EndpointConfiguration const off({.backup = false}, scriptPath(), [&] { return may; });
    EXPECT_FALSE(off.haMaster());
}

TEST_F(EndpointInDaemon, TryingWhileTheServerIsAwayThrowsAndKeepsTheCache) {
    LoadReport::set({});
    UnreachableServer const away;
    EXPECT_THROW(m_loads.tryAgain(), Exception);
    EXPECT_TRUE(RefCache::instance(nullptr, 255) == m_cache);
}

TEST_F(EndpointInDaemon, LastBackupIsHandedOverAlsoWhileTheServerIsAway) {
    load();
    m_cache->entry(MSISDN("1"), 0, true)->increment(AttributeType::spam, m_slice);
    FakeDatabaseDaemon const daemon;
    UnreachableServer const away;
    takeLastBackup();
    EXPECT_EQ(note(), "last backup of endpoints: 1 slices of 1 subscribers are with the database daemon");
    EXPECT_EQ(daemon.requests().size(), 1U);
    EXPECT_TRUE(std::filesystem::exists(scriptPath()));
}

TEST_F(EndpointInDaemon, LastBackupThatFailsIsSaid) {
    load();
    FakeDatabaseDaemon const daemon(5);
    takeLastBackup();
    EXPECT_THAT(note(), HasSubstr("the last backup of endpoints failed, what came after the one before is lost: the "
                                  "database daemon did not take the script"));
}

TEST_F(EndpointInDaemon, NoLastBackupOfAPartialLoadNorWhenSwitchedOff) {
    run({"insert into mms_reputation values ('', 1, 1, 1)", "insert into mms_reputation_expiry values ('', 0)"});
    load();
    FakeDatabaseDaemon const daemon;
    takeLastBackup();
    EXPECT_THAT(note(), HasSubstr("no last backup of endpoints: the endpoint tables could not be loaded: EntryRow"));
    m_state.change({.backup = false});
    takeLastBackup();
    EXPECT_EQ(note(), "no last backup of endpoints: backups are switched off in the settings");
    EXPECT_THAT(daemon.requests(), IsEmpty());
    EXPECT_FALSE(std::filesystem::exists(scriptPath()));
}

} // namespace
} // namespace Vellum::Daemon
