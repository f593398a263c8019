#include "dbdaemon/Service.h"

#include "../support/CapturingLogger.h"
#include "../support/PrivateMariaDb.h"
#include "../support/TemporaryDirectory.h"
#include "AskAs.h"
#include "Files.h"
#include "Tables.h"
#include "foundation/database/DatabaseDaemon.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <optional>
#include <sys/stat.h>

namespace Vellum::DatabaseDaemon {
namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;
using testing::StartsWith;

constexpr int rows = 3;
constexpr std::chrono::minutes patience{2}; // only a test that fails waits for so long

PrivateMariaDb& server() {
    return PrivateMariaDb::shared();
}

class ServiceTest : public testing::Test {
  protected:
    ServiceTest() {
        makeTables(rows);
        server().useAccount();
        setSocketPath(m_directory.path() + "/s");
        m_options.requests.socketPath = m_directory.path() + "/s";
        m_options.journal = m_directory.path() + "/journal";
        m_options.pauses = {std::chrono::milliseconds(1), std::chrono::milliseconds(20)};
    }
    ~ServiceTest() override {
        stop();
        if (!server().isRunning()) {
            server().start();
        }
        setSocketPath(defaultSocketPath);
    }

    void start() { m_service.emplace(m_options); }
    void stop() { m_service.reset(); }
    void waitUntilIdle() { ASSERT_TRUE(m_service->waitUntilIdle(patience)); }

    std::string script(std::string const& text, std::string const& name = "script.sql") const {
        writeFile(m_directory.path() + '/' + name, text);
        return m_directory.path() + '/' + name;
    }
    int ask(std::string const& text, RequestCode code = RequestCode::greylistScript) const {
        return requestScript(code, script(text));
    }
    std::vector<std::string> journal() const { return namesIn(m_options.journal); }
    std::vector<std::string> failed() const { return namesIn(m_options.journal + "/failed"); }
    // How many notes hold `part`.
    long notes(std::string const& part) const {
        auto const all = m_log.notes();
        return std::count_if(all.begin(), all.end(),
                             [&](std::string const& note) { return note.find(part) != std::string::npos; });
    }

    CapturingLogger m_log;
    TemporaryDirectory m_directory;
    Service::Options m_options;
    std::optional<Service> m_service;
};

TEST_F(ServiceTest, AcceptedScriptIsRunAndForgotten) {
    start();
    EXPECT_EQ(ask(replacingScript("1", rows)), 0);
    waitUntilIdle();
    EXPECT_EQ(stateOfTables(rows), "1");
    EXPECT_THAT(journal(), IsEmpty());
    stop();
    std::string const user = std::to_string(geteuid());
    EXPECT_THAT(
        m_log.notes(),
        testing::UnorderedElementsAre(
            "taking requests on " + m_directory.path() + "/s, journal " + m_options.journal,
            "request code 4 of user " + user + " for " + m_directory.path() + "/script.sql is accepted as script 1",
            StartsWith("script 1 of request code 4 is done: 7 statements, 12 rows changed, 0.")));
}

TEST_F(ServiceTest, ScriptMayChangeOrGoOnceItIsAccepted) {
    server().kill(); // so that it cannot be run before the file is gone
    start();
    std::string const path = script(replacingScript("1", rows));
    EXPECT_EQ(requestScript(RequestCode::greylistScript, path), 0);
    writeFile(path, replacingScript("changed", rows));
    std::filesystem::remove(path);
    server().start();
    waitUntilIdle();
    EXPECT_EQ(stateOfTables(rows), "1");
}

TEST_F(ServiceTest, EveryRequestCodeIsServed) {
    start();
    EXPECT_EQ(ask(reputationScript("a"), RequestCode::reputationScript), 0);
    waitUntilIdle();
    EXPECT_EQ(ask(replacingScript("b", rows), RequestCode::endpointScript), 0);
    waitUntilIdle();
    EXPECT_EQ(stateOfTables(rows), "b");
    EXPECT_THAT(server().query("select state from sender_reputation"), ElementsAre("a"));
}

TEST_F(ServiceTest, UnknownCodesAreRefused) {
    start();
    for (int const code : {2, 3, 6, 10, -4}) {
        EXPECT_EQ(requestScript(static_cast<RequestCode>(code), script("commit;")), int(Answer::unknownCode)) << code;
    }
    EXPECT_THAT(journal(), IsEmpty());
}

TEST_F(ServiceTest, OnlyReadableRegularFilesAreTaken) {
    start();
    std::string const good = script(replacingScript("1", rows));
    std::string const fifo = m_directory.path() + "/fifo";
    std::string const link = m_directory.path() + "/link";
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    std::filesystem::create_symlink(good, link);
    for (std::string const& path : {m_directory.path() + "/missing", m_directory.path(), fifo, link,
                                    std::string("/dev/null"), '/' + std::string(4000, 'x')}) {
        EXPECT_EQ(requestScript(RequestCode::greylistScript, path), int(Answer::scriptUnreadable)) << path;
    }
    EXPECT_THAT(journal(), IsEmpty());
    EXPECT_EQ(stateOfTables(rows), "0");
    EXPECT_EQ(notes("/link is refused: Service (code 4): Too many levels of symbolic links"), 1);
}

TEST_F(ServiceTest, FileOfAUserWhoMayNotAskIsNotTaken) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "only root can give a file away";
    }
    m_options.requests.users = {54321};
    start();
    std::string const path = script(replacingScript("1", rows));
    ASSERT_EQ(chown(path.c_str(), 54322, 0), 0);
    EXPECT_EQ(requestScript(RequestCode::greylistScript, path), int(Answer::scriptUnreadable));
    ASSERT_EQ(chown(path.c_str(), 54321, 0), 0);
    EXPECT_EQ(requestScript(RequestCode::greylistScript, path), 0);
    waitUntilIdle();
    EXPECT_EQ(stateOfTables(rows), "1");
}

// Both users may ask, but not in each other's name.
TEST_F(ServiceTest, FileOfAnotherUserIsNotTaken) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "only root can give a file away";
    }
    m_options.requests.users = {54321, 54322};
    m_options.requests.socketMode = 0666;
    ASSERT_EQ(chmod(m_directory.path().c_str(), 0711), 0);
    start();
    std::string const path = script(replacingScript("1", rows));
    ASSERT_EQ(chown(path.c_str(), 54321, 0), 0);
    EXPECT_EQ(askAs(54322, path), int(Answer::scriptUnreadable));
    EXPECT_EQ(notes("/script.sql is refused: Service (code 4): it belongs to user 54321, not to the one who asks"), 1);
    ASSERT_EQ(chown(path.c_str(), 0, 0), 0);
    EXPECT_EQ(askAs(54321, path), int(Answer::scriptUnreadable)) << "nor does root's file";
    EXPECT_EQ(stateOfTables(rows), "0");
    ASSERT_EQ(chown(path.c_str(), 54321, 0), 0);
    EXPECT_EQ(askAs(54321, path), int(Answer::accepted));
    waitUntilIdle();
    EXPECT_EQ(stateOfTables(rows), "1");
}

TEST_F(ServiceTest, RefusedScriptIsPutAsideAndLoggedOnce) {
    start();
    std::string const text =
        "LOCK TABLES grey_list WRITE;\ndelete from grey_list;\nINSERT INTO grey_list VALUES\n(1);\n"
        "UNLOCK TABLES;\n";
    EXPECT_EQ(ask(text), 0) << "that it fails is seen later";
    waitUntilIdle();
    EXPECT_EQ(stateOfTables(rows), "0");
    EXPECT_THAT(journal(), IsEmpty());
    EXPECT_THAT(failed(), ElementsAre("0000000000000001-4.sql"));
    EXPECT_EQ(readFile(m_options.journal + "/failed/0000000000000001-4.sql"), text);
    EXPECT_EQ(m_log.waitForNote("is refused, see failed/")->text,
              "script 1 of request code 4 is refused, see failed/ in the journal: " + m_options.journal +
                  "/0000000000000001-4.sql: rolled back: statement 3 (line 3): error 1136 from vellum@127.0.0.1:" +
                  std::to_string(server().port()) +
                  ": Column count doesn't match value count at row 1; statement: INSERT INTO grey_list VALUES\\n(1)");
    EXPECT_EQ(ask(replacingScript("2", rows)), 0);
    waitUntilIdle();
    EXPECT_EQ(stateOfTables(rows), "2");
}

TEST_F(ServiceTest, RefusedScriptThatCannotBePutAsideHoldsNothingUpAndNeverComesBack) {
    start();
    std::filesystem::create_directories(m_options.journal + "/failed/0000000000000001-4.sql/inside");
    EXPECT_EQ(ask("INSERT INTO grey_list VALUES\n(1);\n"), 0);
    waitUntilIdle();
    EXPECT_EQ(notes("script 1 of request code 4 cannot be put aside: "), 1);
    EXPECT_THAT(journal(), ElementsAre("0000000000000001-4.sql"));
    EXPECT_EQ(ask(replacingScript("2", rows)), 0);
    waitUntilIdle();
    EXPECT_THAT(journal(), IsEmpty());
    stop();
    start();
    waitUntilIdle();
    EXPECT_EQ(stateOfTables(rows), "2");
    EXPECT_EQ(notes("is refused, see failed/"), 1);
}

TEST_F(ServiceTest, CutOffScriptIsPutAside) {
    start();
    std::string const whole = replacingScript("1", rows);
    EXPECT_EQ(ask(whole.substr(0, whole.size() / 2)), 0);
    waitUntilIdle();
    EXPECT_EQ(stateOfTables(rows), "0");
    EXPECT_THAT(failed(), SizeIs(1));
}

TEST_F(ServiceTest, DatabaseMayBeAwayWhenARequestComes) {
    server().kill();
    start();
    EXPECT_EQ(ask(replacingScript("1", rows)), 0);
    EXPECT_EQ(ask(reputationScript("a"), RequestCode::reputationScript), 0);
    ASSERT_TRUE(m_log.waitForNote("trouble with the database"));
    sleepFor(0, 100); // several more tries, none of which may say anything
    EXPECT_THAT(journal(), SizeIs(2));
    server().start();
    waitUntilIdle();
    EXPECT_EQ(stateOfTables(rows), "1");
    EXPECT_THAT(server().query("select state from sender_reputation"), ElementsAre("a"));
    EXPECT_EQ(notes("trouble with the database, accepted scripts wait"), 1);
    EXPECT_EQ(notes("the trouble with the database is over after "), 1);
    EXPECT_THAT(m_log.waitForNote("trouble with the database")->text, HasSubstr("error 2002 from vellum@127.0.0.1"));
}

TEST_F(ServiceTest, SaysWhetherEverythingAcceptedIsDone) {
    EXPECT_EQ(askWhetherSettled(), Answer::unreachable) << "no daemon yet";
    start();
    waitUntilIdle();
    EXPECT_EQ(askWhetherSettled(), Answer::accepted);
    server().kill();
    EXPECT_EQ(ask(replacingScript("1", rows)), 0);
    EXPECT_EQ(askWhetherSettled(), Answer::notSettled) << "accepted, and no database to run it";
    server().start();
    waitUntilIdle();
    EXPECT_EQ(askWhetherSettled(), Answer::accepted);
    EXPECT_EQ(stateOfTables(rows), "1");
}

TEST_F(ServiceTest, TellsWhatBecameOfScriptsAlsoAfterARestart) {
    ScriptOutcomes told{{77, {}}};
    EXPECT_EQ(askForOutcomes(told), Answer::unreachable) << "no daemon yet";
    EXPECT_EQ(told.size(), 1U) << "left alone";
    start();
    EXPECT_EQ(askForOutcomes(told), Answer::accepted);
    EXPECT_EQ(told, ScriptOutcomes{});
    EXPECT_EQ(ask(replacingScript("1", rows)), 0);
    waitUntilIdle();
    EXPECT_EQ(ask("INSERT INTO grey_list VALUES\n(1);\n"), 0);
    waitUntilIdle();
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(askForOutcomes(told), Answer::accepted);
        ASSERT_TRUE(told[4].ran && told[4].refused);
        EXPECT_EQ(told[4].ran->number, 1U);
        EXPECT_EQ(told[4].refused->number, 2U);
        EXPECT_THAT(told[4].refused->reason, HasSubstr("Column count doesn't match value count at row 1"));
        stop();
        start();
    }
    server().kill();
    EXPECT_EQ(ask(replacingScript("2", rows)), 0);
    EXPECT_EQ(askForOutcomes(told), Answer::accepted);
    EXPECT_TRUE(told[4].refused) << "only accepted";
    server().start();
    waitUntilIdle();
    EXPECT_EQ(askForOutcomes(told), Answer::accepted);
    EXPECT_FALSE(told[4].refused);
    EXPECT_EQ(stateOfTables(rows), "2");
}

TEST_F(ServiceTest, WrongPasswordIsTroubleAndLosesNoScript) {
    Database::Server wrong = server().account();
    wrong.password = "hush-hush";
    Database::ServerMap::instance().install(wrong);
    start();
    EXPECT_EQ(ask(replacingScript("1", rows)), 0);
    EXPECT_THAT(m_log.waitForNote("trouble with the database")->text,
                AllOf(HasSubstr("error 1045"), Not(HasSubstr("hush-hush"))));
    server().useAccount();
    waitUntilIdle();
    EXPECT_EQ(stateOfTables(rows), "1");
}

TEST_F(ServiceTest, MissingDatabaseIsWaitedFor) {
    server().removeDatabases();
    start();
    EXPECT_EQ(ask(replacingScript("1", rows)), 0);
    ASSERT_TRUE(m_log.waitForNote("Unknown database 'fe_sender_history'"));
    EXPECT_THAT(journal(), SizeIs(1));
    stop();
    makeTables(rows);
    start();
    waitUntilIdle();
    EXPECT_EQ(stateOfTables(rows), "1");
}

TEST_F(ServiceTest, NewerScriptReplacesTheWaitingOne) {
    server().kill();
    start();
    for (int state = 1; state <= 3; ++state) {
        EXPECT_EQ(ask(replacingScript(std::to_string(state), rows)), 0);
    }
    server().start();
    waitUntilIdle();
    EXPECT_EQ(stateOfTables(rows), "3");
    EXPECT_EQ(notes("is done"), 1) << "the older ones were never run";
    EXPECT_EQ(notes("is superseded by a newer one"), 2);
}

TEST_F(ServiceTest, LockedTablesHoldUpNoOtherCode) {
    Database::Server impatient = server().account();
    impatient.readTimeoutSeconds = 2;
    Database::ServerMap::instance().install(impatient);
    Database::Connection holder(server().account(), "fe_sender_history");
    holder.run("LOCK TABLES autoexempt READ", "test");
    start();
    EXPECT_EQ(ask(replacingScript("1", rows)), 0);
    EXPECT_EQ(ask(reputationScript("a"), RequestCode::reputationScript), 0);
    ASSERT_TRUE(m_log.waitForNote("script 2 of request code 5 is done"));
    EXPECT_THAT(journal(), ElementsAre("0000000000000001-4.sql"));
    holder.run("UNLOCK TABLES", "test");
    waitUntilIdle();
    EXPECT_EQ(stateOfTables(rows), "1");
}

TEST_F(ServiceTest, EndDoesNotWaitForASlowStatement) {
    Database::Connection holder(server().account(), "fe_sender_history");
    holder.run("LOCK TABLES autoexempt READ", "test");
    m_options.patience = std::chrono::milliseconds(1);
    start();
    EXPECT_EQ(ask(replacingScript("1", rows)), 0);
    while (server().query(
               "select count(*) from information_schema.processlist where info like 'LOCK TABLES grey%'")[0] == "0") {
    }
    stop(); // the lock would be waited for most of a minute
    EXPECT_EQ(notes("script 1 of request code 4 is rolled back and will be run at the next start"), 1);
    EXPECT_THAT(journal(), SizeIs(1));
    holder.run("UNLOCK TABLES", "test");
    EXPECT_EQ(stateOfTables(rows), "0");
    start();
    waitUntilIdle();
    EXPECT_EQ(stateOfTables(rows), "1");
}

TEST_F(ServiceTest, ServerKilledInTheMiddleIsTriedAgain) {
    constexpr int many = 20000;
    makeTables(many);
    start();
    EXPECT_EQ(ask(replacingScript("1", many)), 0);
    while (notes("is done") == 0 &&
           server().query("select count(*) from information_schema.processlist where info like 'INSERT%'")[0] == "0") {
    }
    server().kill();
    server().start();
    waitUntilIdle();
    EXPECT_EQ(stateOfTables(many), "1");
    EXPECT_THAT(journal(), IsEmpty());
}

TEST_F(ServiceTest, FewGrantsSuffice) {
    server().run({"CREATE OR REPLACE USER 'few'@'127.0.0.1' IDENTIFIED BY 'f'",
                  "GRANT SELECT, INSERT, DELETE, LOCK TABLES ON fe_sender_history.* TO 'few'@'127.0.0.1'"});
    Database::Server few = server().account();
    few.user = "few";
    few.password = "f";
    Database::ServerMap::instance().install(few);
    start();
    EXPECT_EQ(ask(replacingScript("1", rows)), 0);
    waitUntilIdle();
    EXPECT_EQ(stateOfTables(rows), "1");
}

TEST_F(ServiceTest, SecondServiceOnTheJournalIsRefused) {
    start();
    Service::Options second = m_options;
    second.requests.socketPath = m_directory.path() + "/other";
    EXPECT_THROW(Service{second}, Exception);
    EXPECT_EQ(ask(replacingScript("1", rows)), 0);
    waitUntilIdle();
}

TEST_F(ServiceTest, JournalThatCannotTakeTheScriptRefusesIt) {
    start();
    std::filesystem::rename(m_options.journal, m_options.journal + ".gone");
    EXPECT_EQ(ask(replacingScript("1", rows)), int(Answer::journalFailed));
    std::filesystem::rename(m_options.journal + ".gone", m_options.journal);
    EXPECT_EQ(ask(replacingScript("2", rows)), 0);
    waitUntilIdle();
    EXPECT_EQ(stateOfTables(rows), "2");
}

TEST_F(ServiceTest, ClientSaysWhyARequestFailed) {
    std::string const path = script("commit;");
    EXPECT_EQ(requestScript(RequestCode::greylistScript, path), int(Answer::unreachable));
    EXPECT_EQ(m_log.notes().back(), "the database daemon did not accept the script \"" + path +
                                        "\": dbdaemon_send_request (code 4): no database daemon on " +
                                        m_directory.path() + "/s: No such file or directory");
    start();
    EXPECT_EQ(requestScript(RequestCode::greylistScript, "relative.sql"), int(Answer::malformed));
    EXPECT_EQ(m_log.notes().back(),
              "the database daemon did not accept the script \"relative.sql\": the request is malformed");
    EXPECT_EQ(requestScript(RequestCode::greylistScript, ""), int(Answer::malformed));
    EXPECT_EQ(requestScript(RequestCode::greylistScript, '/' + std::string(5000, 'x')), int(Answer::malformed));
    EXPECT_EQ(dbdaemon_send_request(nullptr), int(Answer::malformed));
}

TEST_F(ServiceTest, DaemonThatNeverAnswersIsGivenUp) {
    UnixListener const silent(m_directory.path() + "/s", 0600);
    setTimeout(std::chrono::milliseconds(50));
    EXPECT_EQ(requestScript(RequestCode::greylistScript, script("commit;")), int(Answer::unreachable));
    setTimeout(std::chrono::seconds(60));
    EXPECT_THAT(m_log.notes().back(), HasSubstr("no answer in time from the daemon"));
}

} // namespace
} // namespace Vellum::DatabaseDaemon
