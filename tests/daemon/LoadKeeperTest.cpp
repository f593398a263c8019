// No backup before a load, and the load that is tried again.
#include "daemon/LoadKeeper.h"

#include "daemon/ReputationConfiguration.h"
#include "reputation/LoadReport.h"
#include "reputation/LogCodes.h"
#include "tests/support/FakeDatabaseDaemon.h"
#include "tests/support/ReputationTables.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Vellum::Daemon {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

struct FakeTables {
    KeptTables tables() {
        return {"the tables of a test", [this] { return problem; },
                [this] {
                    ++loads;
                    problem = next;
                }};
    }
    std::string problem = "row 3";
    std::string next;
    int loads = 0;
};

TEST(LoadKeeper, BackupsAreOffUntilALoadThatIsTriedAgainSucceeds) {
    CapturingLogger log;
    FakeTables fake;
    int told = 0;
    LoadKeeper keeper(fake.tables(), [&told] { ++told; });
    EXPECT_FALSE(keeper.mayBackUp());
    EXPECT_EQ(keeper.problem(), "row 3");
    fake.next = "row 4";
    keeper.tryAgain();
    EXPECT_FALSE(keeper.mayBackUp());
    EXPECT_TRUE(log.notes().empty());
    fake.next.clear();
    keeper.tryAgain();
    EXPECT_TRUE(keeper.mayBackUp());
    EXPECT_THAT(log.notes(),
                ElementsAre("the tables of a test that could not be loaded are loaded now: backups are on again"));
    EXPECT_EQ(told, 1);
    keeper.tryAgain();
    EXPECT_EQ(fake.loads, 2) << "not again";
}

TEST(LoadKeeper, AcceptanceHoldsForTheProblemThatItWasGivenFor) {
    FakeTables fake;
    LoadKeeper keeper(fake.tables());
    EXPECT_TRUE(keeper.accept());
    EXPECT_TRUE(keeper.mayBackUp());
    EXPECT_FALSE(keeper.accept()) << "it was on already";
    keeper.tryAgain();
    EXPECT_EQ(fake.loads, 0);
    fake.problem = "row 4";
    EXPECT_FALSE(keeper.mayBackUp());
    fake.problem.clear();
    EXPECT_FALSE(keeper.accept()) << "nothing to accept";
}

// Another unit of the pair has written the tables since they were loaded here.
struct PairFixture {
    PairFixture() {
        fake.problem.clear();
        tables.loadAnew = [this] {
            ++loadsAnew;
            during();
            fake.problem = fake.next;
        };
    }
    FakeTables fake;
    KeptTables tables = fake.tables();
    std::uint64_t activations = 0;
    int loadsAnew = 0;
    std::function<void()> during = [] {
    };
    CapturingLogger log;
};

constexpr char const* outdated =
    "this unit has become the active one, and has not loaded yet what the other one has written";

TEST(LoadKeeper, UnitThatBecomesTheActiveOneLoadsBeforeItBacksUp) {
    PairFixture unit;
    LoadKeeper keeper(unit.tables, {}, [&] { return unit.activations; });
    EXPECT_TRUE(keeper.mayBackUp()) << "it has loaded at its start";
    keeper.tryAgain();
    EXPECT_EQ(unit.loadsAnew, 0);
    unit.activations = 1;
    EXPECT_FALSE(keeper.mayBackUp());
    EXPECT_EQ(keeper.whyNoBackup(), outdated);
    keeper.tryAgain();
    EXPECT_TRUE(keeper.mayBackUp());
    keeper.tryAgain();
    EXPECT_EQ(unit.loadsAnew, 1);
    EXPECT_THAT(unit.log.notes(),
                ElementsAre("the tables of a test that the other unit has written are loaded: backups are on again"));
}

TEST(LoadKeeper, ActivationDuringTheLoadNeedsAnotherOne) {
    PairFixture unit;
    LoadKeeper keeper(unit.tables, {}, [&] { return unit.activations; });
    unit.activations = 1;
    unit.during = [&] {
        unit.activations = 2;
        unit.during = [] {
        };
    };
    keeper.tryAgain();
    EXPECT_FALSE(keeper.mayBackUp());
    keeper.tryAgain();
    EXPECT_TRUE(keeper.mayBackUp());
    EXPECT_EQ(unit.loadsAnew, 2);
}

TEST(LoadKeeper, WhatCannotBeLoadedAfterAnActivationIsLikeAnyOther) {
    PairFixture unit;
    LoadKeeper keeper(unit.tables, {}, [&] { return unit.activations; });
    unit.activations = 1;
    unit.fake.next = "row 5";
    keeper.tryAgain();
    EXPECT_EQ(keeper.whyNoBackup(), "row 5");
    EXPECT_THAT(unit.log.notes(), ElementsAre("of what the other unit has written, row 5"));
    keeper.tryAgain();
    keeper.tryAgain();
    EXPECT_EQ(unit.loadsAnew, 1) << "what was learnt since is not thrown away again and again";
    EXPECT_EQ(unit.fake.loads, 2) << "only what is missing";
    EXPECT_TRUE(keeper.accept());
    EXPECT_TRUE(keeper.mayBackUp());
    keeper.tryAgain();
    EXPECT_EQ(unit.fake.loads, 2);
}

TEST(LoadKeeper, WhatWasAcceptedBeforeTheActivationIsNotRefusedAfterIt) {
    PairFixture unit;
    unit.fake.problem = unit.fake.next = "row 3";
    LoadKeeper keeper(unit.tables, {}, [&] { return unit.activations; });
    EXPECT_TRUE(keeper.accept());
    unit.activations = 1;
    EXPECT_FALSE(keeper.mayBackUp());
    keeper.tryAgain();
    EXPECT_TRUE(keeper.mayBackUp());
}

TEST(LoadKeeper, AdministratorMayHaveWhatTheOtherUnitHasWrittenReplaced) {
    PairFixture unit;
    LoadKeeper keeper(unit.tables, {}, [&] { return unit.activations; });
    unit.activations = 1;
    EXPECT_TRUE(keeper.accept());
    EXPECT_TRUE(keeper.mayBackUp());
    keeper.tryAgain();
    EXPECT_EQ(unit.loadsAnew, 0);
}

// Endpoints: no backup writes the lists, so one that is missing keeps nothing from being backed up.
TEST(LoadKeeper, FamilyMayAllowBackupsWhileSomethingIsMissing) {
    FakeTables fake;
    KeptTables tables = fake.tables();
    std::string why = "entries";
    tables.whyNoBackup = [&] {
        return why;
    };
    tables.accept = [&] {
        why.clear();
    };
    LoadKeeper keeper(tables);
    EXPECT_EQ(keeper.whyNoBackup(), "entries");
    EXPECT_EQ(keeper.problem(), "row 3");
    EXPECT_TRUE(keeper.accept());
    EXPECT_TRUE(keeper.mayBackUp());
    EXPECT_FALSE(keeper.accept());
    EXPECT_EQ(keeper.problem(), "row 3") << "and is tried again";
    keeper.tryAgain();
    EXPECT_EQ(fake.loads, 1);
}

class ReputationLoadTest : public Reputation::ReputationTables {};

TEST_F(ReputationLoadTest, WithoutAnyLoadBackupsAreOff) {
    EXPECT_EQ(reputationTables().problem(), "the tables of sender reputation could not be loaded: no load was tried "
                                            "yet");
    read();
    EXPECT_EQ(reputationTables().problem(), "");
    run({"drop table sender_reputation"});
    read();
    EXPECT_THAT(reputationTables().problem(), HasSubstr("sender_reputation' doesn't exist"));
}

TEST_F(ReputationLoadTest, TroubleThatLastsIsLoggedWhenItBeginsChangesAndEnds) {
    FakeDatabaseDaemon const daemon;
    run({"alter table sender_reputation rename to elsewhere"});
    m_log.clear();
    read();
    LoadKeeper keeper(reputationTables());
    for (int minute = 0; minute < 5; ++minute) {
        keeper.tryAgain();
    }
    ASSERT_EQ(m_log.records(Reputation::LogCode::readFailed).size(), 1U);
    EXPECT_THAT(m_log.records().at(0).text, HasSubstr("sender_reputation' doesn't exist"));
    run({"alter table elsewhere rename to sender_reputation",
         "alter table sender_reputation_state rename to elsewhere"});
    keeper.tryAgain();
    keeper.tryAgain();
    ASSERT_EQ(m_log.records(Reputation::LogCode::readFailed).size(), 2U);
    EXPECT_THAT(m_log.records().at(1).text, HasSubstr("sender_reputation_state' doesn't exist"));
    run({"alter table elsewhere rename to sender_reputation_state"});
    keeper.tryAgain();
    EXPECT_THAT(m_log.notes(), ElementsAre("the tables of sender reputation that could not be loaded are loaded now: "
                                           "backups are on again"));
    EXPECT_EQ(m_log.records(Reputation::LogCode::readFailed).size(), 2U);
}

// The daemon counts on while it waits for the database; a load must not take that back, nor count anything twice.
TEST_F(ReputationLoadTest, WhatWasCountedMeanwhileStaysBesideWhatIsLoaded) {
    run({"insert into sender_reputation values ('192.0.2.1', 5, 10, 10, 0, 0, 7), ('192.0.2.1', 6, 1, 1, 1, 1, 1)",
         "insert into sender_reputation_state values ('192.0.2.1', 2)"});
    m_cache.entry(Reputation::ip("192.0.2.1"))->add(5, Reputation::Entry::Record(3, 12, 1, 0, 0));
    m_cache.entry(Reputation::ip("192.0.2.2"))->add(7, Reputation::Entry::Record(1, 2, 0, 0, 1));
    reputationTables().loadAgain();
    EXPECT_THAT(held(), ElementsAre("192.0.2.1 2: 5=10/12/1/0/7 6=1/1/1/1/1", "192.0.2.2 0: 7=1/2/0/0/1"));
    EXPECT_EQ(reputationTables().problem(), "");
}

TEST(ReputationConfiguration, AllowsABackupWhenSettingsAndCacheDo) {
    bool may = false;
    {
        ReputationConfiguration configuration({}, "/s/reputation.sql", [&may] { return may; });
        EXPECT_EQ(Reputation::Configuration::instance(), &configuration);
        EXPECT_EQ(configuration.backupPath(), "/s/reputation.sql");
        EXPECT_FALSE(configuration.backupEnabled());
        may = true;
        EXPECT_TRUE(configuration.backupEnabled());
        configuration.change({.backup = false});
        EXPECT_FALSE(configuration.backupEnabled());
        configuration.backupDone();
    }
    EXPECT_EQ(Reputation::Configuration::s_instance, nullptr);
}

} // namespace
} // namespace Vellum::Daemon
