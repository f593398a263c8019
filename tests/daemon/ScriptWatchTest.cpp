#include "daemon/ScriptWatch.h"

#include "tests/support/CapturingLogger.h"
#include "tests/support/FakeDatabaseDaemon.h"

#include <cstring>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Vellum::Daemon {
namespace {

using DatabaseDaemon::RequestCode;
using testing::ElementsAre;
using testing::IsEmpty;

void tell(FakeDatabaseDaemon& daemon, std::string const& text) {
    auto const length = static_cast<std::int32_t>(text.size());
    std::string bytes(sizeof length, '\0');
    std::memcpy(bytes.data(), &length, sizeof length);
    daemon.answerWith(bytes + text);
}

TEST(ScriptWatch, KnowsNothingBeforeItHasAsked) {
    ScriptWatch watch;
    EXPECT_EQ(watch.isAnswered(), std::nullopt);
    EXPECT_TRUE(watch.outcomes().empty());
    EXPECT_EQ(outcomeOf(watch.outcomes(), RequestCode::greylistScript), DatabaseDaemon::ScriptOutcome{});
    watch.isUnreachable();
    EXPECT_EQ(watch.isAnswered(), false);
}

TEST(ScriptWatch, ARefusalIsSaidOnceAndSoIsItsEnd) {
    CapturingLogger log;
    FakeDatabaseDaemon daemon;
    ScriptWatch watch;
    tell(daemon, "4 ran 17 1700000000\n5 refused 18 1700003600 no such column\n");
    for (int i = 0; i < 3; ++i) {
        watch.look();
    }
    EXPECT_EQ(watch.isAnswered(), true);
    EXPECT_EQ(outcomeOf(watch.outcomes(), RequestCode::greylistScript).ran->acceptedAt, 1700000000);
    EXPECT_EQ(outcomeOf(watch.outcomes(), RequestCode::reputationScript).refused->number, 18U);
    std::string const first = "the last script of reputation was refused: no such column; the tables hold what was "
                              "saved before it, and vellum-dbd keeps it in failed/ of its journal as script 18";
    EXPECT_THAT(log.notes(), ElementsAre(first));
    tell(daemon, "4 ran 17 1700000000\n5 refused 19 1700007200 no such table\n");
    watch.look();
    std::string const second = "the last script of reputation was refused: no such table; the tables hold what was "
                               "saved before it, and vellum-dbd keeps it in failed/ of its journal as script 19";
    EXPECT_THAT(log.notes(), ElementsAre(first, second));
    tell(daemon, "4 ran 17 1700000000\n5 ran 20 1700010800\n");
    watch.look();
    watch.look();
    EXPECT_THAT(log.notes(), ElementsAre(first, second, "scripts of reputation are run again"));
    EXPECT_EQ(outcomeOf(watch.outcomes(), RequestCode::reputationScript).ran->number, 20U);
}

TEST(ScriptWatch, WhileTheDaemonDoesNotAnswerWhatItToldLastStays) {
    CapturingLogger log;
    ScriptWatch watch;
    {
        FakeDatabaseDaemon daemon;
        tell(daemon, "9 ran 17 1700000000\n");
        watch.look();
        EXPECT_EQ(watch.isAnswered(), true);
    }
    AbsentDatabaseDaemon const none;
    watch.look();
    EXPECT_EQ(watch.isAnswered(), false);
    EXPECT_EQ(outcomeOf(watch.outcomes(), RequestCode::endpointScript).ran->number, 17U);
    watch.look();
    std::string const gone =
        "the database daemon on " + DatabaseDaemon::socketPath() + " does not answer; backups fail until it does";
    EXPECT_THAT(log.notes(), ElementsAre(gone));
    FakeDatabaseDaemon again;
    tell(again, "9 ran 17 1700000000\n");
    watch.look();
    watch.look();
    EXPECT_THAT(log.notes(), ElementsAre(gone, "the database daemon answers again"));
}

TEST(ScriptWatch, TheEndOfWhatTheStartHasSaidIsSaid) {
    CapturingLogger log;
    ScriptWatch watch;
    watch.isUnreachable();
    {
        AbsentDatabaseDaemon const none;
        watch.look();
    }
    EXPECT_THAT(log.notes(), IsEmpty());
    FakeDatabaseDaemon daemon;
    tell(daemon, "9 ran 17 1700000000\n");
    watch.look();
    EXPECT_THAT(log.notes(), ElementsAre("the database daemon answers again"));
}

} // namespace
} // namespace Vellum::Daemon
