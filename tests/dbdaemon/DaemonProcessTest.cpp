// The program vellum-dbd itself, started, killed and started again.
#include "../support/BackgroundProcess.h"
#include "../support/PrivateMariaDb.h"
#include "../support/TemporaryDirectory.h"
#include "../support/UnixSocketProbe.h"
#include "Files.h"
#include "Tables.h"
#include "foundation/Locks.h"
#include "foundation/database/DatabaseDaemon.h"

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <memory>
#include <random>
#include <sysexits.h>
#include <thread>

namespace Vellum::DatabaseDaemon {
namespace {

using testing::AnyOf;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;

constexpr int patienceSteps = 12000; // of 10 ms; only a test that fails waits for so long

PrivateMariaDb& server() {
    return PrivateMariaDb::shared();
}

class DaemonProcessTest : public testing::Test {
  protected:
    DaemonProcessTest() {
        Database::Server const account = server().account();
        writeFile(m_directory.path() + "/password", account.password + '\n');
        writeFile(settings(), "[database]\nport = " + std::to_string(account.port) +
                                  "\npassword_file = \"password\"\n[database_daemon]\nsocket = \"s\"\n"
                                  "journal = \"journal\"\n[log]\ntarget = \"./log\"\n");
        setSocketPath(m_directory.path() + "/s");
    }
    ~DaemonProcessTest() override {
        setSocketPath(defaultSocketPath);
        if (!server().isRunning()) {
            server().start();
        }
    }

    std::string settings() const { return m_directory.path() + "/dbd.toml"; }
    std::string log() const { return readFile(m_directory.path() + "/log"); }
    std::string output() const { return readFile(m_directory.path() + "/output"); }
    std::vector<std::string> journal() const { return namesIn(m_directory.path() + "/journal"); }

    std::unique_ptr<BackgroundProcess> launch(std::vector<std::string> options) const {
        std::vector<std::string> command = {std::string(VELLUM_BINARY_DIR) + "/bin/vellum-dbd"};
        command.insert(command.end(), options.begin(), options.end());
        return std::make_unique<BackgroundProcess>(command, m_directory.path() + "/output");
    }
    void start() {
        std::filesystem::remove(m_directory.path() + "/s"); // a killed one leaves it behind
        m_daemon = launch({"--config", settings()});
        waitFor([&] { return takesConnections(m_directory.path() + "/s") || !m_daemon->isRunning(); });
        ASSERT_TRUE(m_daemon->isRunning()) << output();
    }
    int ask(std::string const& text) const {
        writeFile(m_directory.path() + "/script.sql", text);
        return requestScript(RequestCode::greylistScript, m_directory.path() + "/script.sql");
    }
    template <class Condition>
    static void waitFor(Condition condition) {
        for (int step = 0; step < patienceSteps; ++step) {
            if (condition()) {
                return;
            }
            sleepFor(0, 10);
        }
        FAIL() << "waited in vain";
    }
    void waitUntilDone() {
        waitFor([&] { return journal().empty(); });
    }

    TemporaryDirectory m_directory;
    std::unique_ptr<BackgroundProcess> m_daemon;
};

TEST_F(DaemonProcessTest, AcceptsRunsAndEndsWhenTold) {
    makeTables(3);
    start();
    EXPECT_EQ(ask(replacingScript("1", 3)), 0);
    waitUntilDone();
    EXPECT_EQ(stateOfTables(3), "1");
    m_daemon->signal(SIGTERM);
    EXPECT_EQ(m_daemon->wait(), EX_OK);
    EXPECT_THAT(log(), HasSubstr("script 1 of request code 4 is done"));
    EXPECT_THAT(log(), HasSubstr("info: ending"));
    EXPECT_FALSE(std::filesystem::exists(m_directory.path() + "/s"));
    EXPECT_THAT(output(), IsEmpty());
}

TEST_F(DaemonProcessTest, AcceptedWorkIsFinishedAfterAKill) {
    makeTables(3);
    server().kill();
    start();
    EXPECT_EQ(ask(replacingScript("1", 3)), 0);
    m_daemon->kill();
    EXPECT_THAT(journal(), SizeIs(1));
    server().start();
    EXPECT_EQ(stateOfTables(3), "0");
    start();
    waitUntilDone();
    EXPECT_EQ(stateOfTables(3), "1");
}

// The daemon is killed at random moments while it copies, accepts and runs; whenever one looks, both tables are one
// whole state, and in the end it is the newest that was accepted. VELLUM_LONG=1 makes it long.
TEST_F(DaemonProcessTest, KilledAtAnyMomentTablesAreWhole) {
    constexpr int rows = 2000;
    int const rounds = std::getenv("VELLUM_LONG") != nullptr ? 200 : 20;
    std::uint64_t const seed = std::random_device{}();
    std::mt19937_64 random(seed);
    SCOPED_TRACE("seed " + std::to_string(seed));
    makeTables(rows);
    start();
    std::string accepted = "0"; // the newest state that was
    int refused = 0;
    for (int round = 1; round <= rounds; ++round) {
        std::string const state = std::to_string(round);
        writeFile(m_directory.path() + "/script.sql", replacingScript(state, rows));
        std::thread killer([&, pause = random() % 60] {
            sleepFor(0, static_cast<unsigned int>(pause));
            m_daemon->signal(SIGKILL);
        });
        int const answer = requestScript(RequestCode::greylistScript, m_directory.path() + "/script.sql");
        std::string const before = accepted;
        accepted = answer == 0 ? state : accepted;
        killer.join();
        m_daemon->wait();
        std::string const found = stateOfTables(rows);
        // Without an answer it may have been accepted all the same.
        ASSERT_LE(std::stoi(found), round) << "round " << round;
        start();
        waitUntilDone();
        std::string const now = stateOfTables(rows);
        if (answer == 0) {
            ASSERT_EQ(now, accepted) << "round " << round << ", before " << before;
        } else {
            ++refused;
            ASSERT_THAT(now, AnyOf(before, state)) << "round " << round;
            accepted = now;
        }
    }
    EXPECT_LT(refused, rounds) << "none was ever accepted: nothing is tested";
}

TEST_F(DaemonProcessTest, KilledDatabaseServerLeavesTablesWhole) {
    constexpr int rows = 10000;
    std::uint64_t const seed = std::random_device{}();
    std::mt19937_64 random(seed);
    SCOPED_TRACE("seed " + std::to_string(seed));
    makeTables(rows);
    start();
    for (int round = 1; round <= 5; ++round) {
        EXPECT_EQ(ask(replacingScript(std::to_string(round), rows)), 0);
        sleepFor(0, static_cast<unsigned int>(random() % 200));
        server().kill();
        server().start();
        EXPECT_THAT(stateOfTables(rows), AnyOf(std::to_string(round - 1), std::to_string(round)));
        waitUntilDone();
        ASSERT_EQ(stateOfTables(rows), std::to_string(round));
    }
}

TEST_F(DaemonProcessTest, EndRollsARunningScriptBack) {
    constexpr int rows = 30000;
    makeTables(rows);
    start();
    EXPECT_EQ(ask(replacingScript("1", rows)), 0);
    waitFor([&] {
        return server().query("select count(*) from information_schema.processlist where info like 'INSERT%' or info "
                              "like 'delete%'")[0] != "0" ||
               journal().empty();
    });
    m_daemon->signal(SIGTERM);
    EXPECT_EQ(m_daemon->wait(), EX_OK);
    EXPECT_EQ(stateOfTables(rows), journal().empty() ? "1" : "0");
    start();
    waitUntilDone();
    EXPECT_EQ(stateOfTables(rows), "1");
}

TEST_F(DaemonProcessTest, SecondOneIsRefusedAndHarmsNothing) {
    makeTables(3);
    start();
    auto const second = launch({"--config", settings()});
    EXPECT_EQ(second->wait(), EX_UNAVAILABLE);
    EXPECT_THAT(output(), HasSubstr("another vellum-dbd uses the journal " + m_directory.path() + "/journal"));
    EXPECT_EQ(ask(replacingScript("1", 3)), 0);
    waitUntilDone();
    EXPECT_EQ(stateOfTables(3), "1");
}

TEST_F(DaemonProcessTest, HangupOpensTheLogAgain) {
    start();
    waitFor([&] { return log().find("taking requests") != std::string::npos; });
    std::filesystem::rename(m_directory.path() + "/log", m_directory.path() + "/log.1");
    m_daemon->signal(SIGHUP);
    waitFor([&] { return std::filesystem::exists(m_directory.path() + "/log"); });
    m_daemon->signal(SIGTERM);
    EXPECT_EQ(m_daemon->wait(), EX_OK);
    EXPECT_THAT(log(), HasSubstr("ending"));
    EXPECT_THAT(log(), Not(HasSubstr("taking requests")));
}

TEST_F(DaemonProcessTest, NothingItMakesIsForTheWorld) {
    makeTables(3);
    start();
    EXPECT_EQ(ask("nonsense;"), 0);
    waitFor([&] { return !namesIn(m_directory.path() + "/journal/failed").empty(); });
    for (auto const& entry : std::filesystem::recursive_directory_iterator(m_directory.path() + "/journal")) {
        EXPECT_EQ(entry.status().permissions() & std::filesystem::perms(077), std::filesystem::perms::none)
            << entry.path();
    }
    EXPECT_EQ(std::filesystem::status(m_directory.path() + "/s").permissions() & std::filesystem::perms(0777),
              std::filesystem::perms(0660));
}

TEST_F(DaemonProcessTest, SettingsAreCheckedBeforeAnythingElse) {
    EXPECT_EQ(launch({"--check", "-c", settings()})->wait(), EX_OK);
    EXPECT_EQ(output(), settings() + ": in order\n");
    EXPECT_FALSE(std::filesystem::exists(m_directory.path() + "/journal"));

    struct {
        char const* text;
        char const* message;
    } const wrong[] = {
        {"[database_daemon]\njurnal = \"x\"\n",
         ":2: [database_daemon] unknown key \"jurnal\": expected allowed_users, journal, socket, socket_mode\n"},
        {"[database_daemon]\nsocket_mode = \"0666\"\n", ":2: [database_daemon] socket_mode = \"0666\": expected "
                                                        "permissions as octal digits in quotes, at most \"0770\"\n"},
        {"[database_daemon]\nsocket_mode = \"rw\"\n", ":2: [database_daemon] socket_mode = \"rw\": expected "
                                                      "permissions as octal digits in quotes, at most \"0770\"\n"},
        {"[database_daemon]\nallowed_users = [\"root\", \"no such user\"]\n",
         ":2: [database_daemon] allowed_users = [\"root\", \"no such user\"]: expected names or numbers of users of "
         "this "
         "machine: there is no \"no such user\"\n"},
        {"[database_daemon]\njournal = \"\"\n",
         ":2: [database_daemon] journal = \"\": expected the path of a directory\n"},
        {"[log]\ntarget = \"sysslog\"\n",
         ":2: [log] target = \"sysslog\": expected \"syslog\", \"stderr\" or the path of a file, with a slash in it\n"},
        {"[greylist]\n", ":1: unknown key \"greylist\": expected database, database_daemon, log\n"},
        {"[database]\nport = 0\n", ":2: [database] port = 0: expected 1 to 65535\n"},
    };
    for (auto const& one : wrong) {
        writeFile(settings(), one.text);
        writeFile(m_directory.path() + "/output", "");
        EXPECT_EQ(launch({"--config", settings()})->wait(), EX_CONFIG) << one.text;
        EXPECT_EQ(output(), "vellum-dbd: " + settings() + one.message);
    }
}

TEST_F(DaemonProcessTest, HelpAndVersionSayWhatItIs) {
    EXPECT_EQ(launch({"--help"})->wait(), EX_OK);
    EXPECT_THAT(output(), HasSubstr("The database daemon of the mail filter"));
    writeFile(m_directory.path() + "/output", "");
    EXPECT_EQ(launch({"--version"})->wait(), EX_OK);
    EXPECT_THAT(output(), testing::MatchesRegex("vellum-dbd [0-9]+\\.[0-9]+\\.[0-9]+\n"));
}

} // namespace
} // namespace Vellum::DatabaseDaemon
