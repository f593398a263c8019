// A greylist load that is tried again: only what is missing, and nothing that was learnt meanwhile is lost.
#include "daemon/LoadKeeper.h"

#include "foundation/database/DatabaseDaemon.h"
#include "greylist/LogCodes.h"
#include "tests/support/FakeDatabaseDaemon.h"
#include "tests/support/GreylistTables.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Vellum::GreyList {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class GreylistLoadTest : public GreylistTables {
  protected:
    static std::string problem() { return Daemon::greylistTables().problem(); }
    static void loadAgain() { Daemon::greylistTables().loadAgain(); }
};

TEST_F(GreylistLoadTest, RefusedTuplesAreLoadedOnceTheRowIsRepairedAndWhatCameMeanwhileStays) {
    run({"insert into grey_list values ('192.0.2.0/24', 'a@b', 'c@d', 1, 100), ('no network', 'e@f', 'g@h', 1, 100)"});
    read();
    EXPECT_THAT(problem(), HasSubstr("\"no network\" is not a network"));
    m_tuples.add(tuple("192.0.2.0/24", "new@b", "c@d"), Status(50, 60, 10));
    m_tuples.add(tuple("192.0.2.0/24", "a@b", "c@d"), Status(50, 60, 10));
    loadAgain();
    EXPECT_THAT(problem(), HasSubstr("\"no network\" is not a network")) << "not repaired yet";
    EXPECT_THAT(tuplesHeld(), ElementsAre("192.0.2.0/24 a@b c@d 50 60 10", "192.0.2.0/24 new@b c@d 50 60 10"));
    run({"delete from grey_list where ClientIPAddress = 'no network'"});
    loadAgain();
    EXPECT_EQ(problem(), "");
    EXPECT_THAT(tuplesHeld(), ElementsAre("192.0.2.0/24 a@b c@d 1 100 0", "192.0.2.0/24 new@b c@d 50 60 10"))
        << "what was loaded goes before what was seen again";
}

// The tuples were loaded and have lived on; their table is older than they are.
TEST_F(GreylistLoadTest, HalfThatIsLoadedIsNotReadAgainForTheOther) {
    run({"insert into grey_list values ('192.0.2.0/24', 'a@b', 'c@d', 1, 100)",
         "insert into autoexempt values ('no network', 'A.example', 5, 6)"});
    read();
    EXPECT_THAT(problem(), HasSubstr("\"no network\" is not a network"));
    m_tuples.clear();
    m_tuples.add(tuple("192.0.2.0/24", "a@b", "c@d"), Status(1, 9000, 0)); // it has passed since
    loadAgain();
    EXPECT_THAT(tuplesHeld(), ElementsAre("192.0.2.0/24 a@b c@d 1 9000 0"));
    run({"update autoexempt set ClientIPAddressMask = '192.0.2.0/24'"});
    loadAgain();
    EXPECT_EQ(problem(), "");
    EXPECT_THAT(tuplesHeld(), ElementsAre("192.0.2.0/24 a@b c@d 1 9000 0"));
    EXPECT_THAT(exemptionsHeld(), ElementsAre("192.0.2.0/24 A.example 5 6 0"));
}

TEST_F(GreylistLoadTest, WhatWasForgottenDuringARetryThatFailsStaysForgotten) {
    run({"insert into autoexempt values ('no network', 'A.example', 5, 6)"});
    read();
    m_exemptions.add(exemption(0), Status(14, 15, 16));
    loadAgain();
    m_exemptions.remove(exemption(0));
    loadAgain();
    EXPECT_THAT(exemptionsHeld(), IsEmpty());
}

// A minute passes between two tries: the same trouble would fill the log with 1,440 records a day.
TEST_F(GreylistLoadTest, TroubleThatLastsIsLoggedWhenItBeginsChangesAndEnds) {
    FakeDatabaseDaemon const daemon;
    run({"insert into grey_list values ('no network', 'e@f', 'g@h', 1, 100)",
         "insert into autoexempt values ('nor this', 'A.example', 5, 6)"});
    m_log.clear();
    read();
    ASSERT_EQ(m_log.records(LogCode::readFailed).size(), 2U) << "one for each table";
    Daemon::LoadKeeper keeper(Daemon::greylistTables());
    keeper.tryAgain();
    std::size_t const before = m_log.records(LogCode::readFailed).size();
    EXPECT_LE(before, 3U) << "that of the tuples is known from the load before";
    for (int minute = 0; minute < 5; ++minute) {
        keeper.tryAgain();
    }
    EXPECT_EQ(m_log.records(LogCode::readFailed).size(), before);

    run({"update grey_list set ClientIPAddress = 'another network'"});
    keeper.tryAgain();
    keeper.tryAgain();
    ASSERT_EQ(m_log.records(LogCode::readFailed).size(), before + 1) << "of the tuples, once";
    EXPECT_THAT(m_log.records(LogCode::readFailed).back().text, HasSubstr("\"another network\" is not a network"));

    run({"delete from grey_list", "delete from autoexempt"});
    keeper.tryAgain();
    EXPECT_THAT(m_log.notes(), ElementsAre("the tables that could not be loaded are loaded now: backups are on again"));
    EXPECT_EQ(m_log.records(LogCode::readFailed).size(), before + 1);
    run({"insert into autoexempt values ('nor this', 'A.example', 5, 6)"});
    read();
    EXPECT_EQ(m_log.records(LogCode::readFailed).size(), before + 2) << "a reload that is asked for says it always";
}

TEST_F(GreylistLoadTest, AcceptedScriptThatIsNotInTheTablesYetIsWaitedFor) {
    run({"drop table autoexempt"});
    read();
    ASSERT_NE(problem(), "");
    run({"create table autoexempt (a varchar(128) not null, b varchar(128) not null, c int not null, d int not null)"});
    Daemon::LoadKeeper keeper(Daemon::greylistTables());
    {
        FakeDatabaseDaemon const daemon(static_cast<std::int32_t>(DatabaseDaemon::Answer::notSettled));
        keeper.tryAgain();
        EXPECT_FALSE(keeper.mayBackUp());
    }
    FakeDatabaseDaemon const daemon;
    keeper.tryAgain();
    EXPECT_TRUE(keeper.mayBackUp());
}

} // namespace
} // namespace Vellum::GreyList
