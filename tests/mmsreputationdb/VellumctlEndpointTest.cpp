// The endpoint commands, as the built program runs them, with the daemon's handlers and a real database behind it.
#include "tests/support/EndpointDaemon.h"
#include "tests/support/EndpointTables.h"
#include "tests/tools/ChildProgram.h"
#include "tools/vellumctl/TimeText.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <cstdlib>
#include <ctime>

namespace Vellum::Tools {
namespace {

using MMSReputation::EndpointDaemon;
using MMSReputation::EndpointTables;
using nlohmann::json;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class VellumctlEndpoint : public EndpointTables {
  protected:
    VellumctlEndpoint() {
        ::setenv("TZ", "UTC", 1); // as the child has it
        ::tzset();
        writeSettings(server().account());
    }
    void writeSettings(Database::Server const& account) const {
        // What JSON makes of a text, TOML reads.
        writeFile(settings(), "[database]\nport = " + std::to_string(account.port) + "\nuser = " +
                                  json(account.user).dump() + "\npassword = " + json(account.password).dump() + "\n");
    }
    std::string settings() const { return m_directory.path() + "/vellumd.toml"; }
    ChildResult run(std::vector<std::string> words) const {
        words.insert(words.begin(), "endpoint");
        words.insert(words.end(), {"--port", std::to_string(m_daemon.port())});
        return runChild(VELLUM_BINARY_DIR "/bin/vellumctl", words, {});
    }
    ChildResult runWithSettings(std::vector<std::string> words) const {
        words.insert(words.end(), {"--settings", settings()});
        return run(words);
    }
    static void expectDone(ChildResult const& result, std::string const& out) {
        EXPECT_EQ(result.out, out);
        EXPECT_EQ(result.err, "");
        EXPECT_EQ(result.exitCode, 0);
    }
    static void expectFailed(ChildResult const& result, int exitCode, std::string const& part) {
        EXPECT_EQ(result.exitCode, exitCode);
        EXPECT_EQ(result.out, "");
        EXPECT_THAT(result.err, HasSubstr(part));
    }
    // Three subscribers, scored long after this test.
    void fill() {
        std::uint32_t const slice = currentSlice() + 10;
        add(1, slice, 30, 0, until);
        add(2, slice, 5, 5);
        add(3, slice, 0, 20, over);
    }

    // Half a unit away from where their text changes, so a slow machine shows the same.
    long const now = std::time(nullptr);
    long const until = now + 4 * 60 + 30;
    long const over = now - 3 * 3600 - 1800;
    EndpointDaemon m_daemon;
};

TEST_F(VellumctlEndpoint, ListsForPeople) {
    fill();
    expectDone(run({"list"}), "NUMBER       SCORE  BLACKLISTED UNTIL\n15555550001  30     " + timeText(until, now) +
                                  "\n15555550002  10     -\n15555550003  20     " + timeText(over, now) + "\n");
    expectDone(run({"list", "--no-header", "--limit", "1"}), "15555550001  30  " + timeText(until, now) + "\n");
}

TEST_F(VellumctlEndpoint, ListsForPrograms) {
    fill();
    expectDone(run({"list", "--json"}),
               "[\n{\"number\":\"15555550001\",\"score\":30,\"expiry\":" + std::to_string(until) +
                   "},\n{\"number\":\"15555550002\",\"score\":10,\"expiry\":0},\n"
                   "{\"number\":\"15555550003\",\"score\":20,\"expiry\":" +
                   std::to_string(over) + "}\n]\n");
}

TEST_F(VellumctlEndpoint, FiltersAndSorts) {
    fill();
    add(4);
    auto const shown = [&](std::vector<std::string> words) {
        words.insert(words.begin(), {"list", "--json"});
        std::string numbers;
        json const listed = json::parse(run(words).out, nullptr, false);
        for (auto const& one : listed) {
            numbers += one.at("number").get<std::string>().back();
        }
        return numbers;
    };
    EXPECT_EQ(shown({}), "1234");
    EXPECT_EQ(shown({"--blacklisted"}), "1") << "a time that is over blacklists nobody";
    EXPECT_EQ(shown({"--scored"}), "123");
    EXPECT_EQ(shown({"--number", "*2"}), "2");
    EXPECT_EQ(shown({"--sort", "score"}), "4231");
    EXPECT_EQ(shown({"--sort", "score", "--reverse", "--limit", "2"}), "13");
    EXPECT_EQ(shown({"--sort", "expiry"}), "2431");
    EXPECT_EQ(shown({"--sort", "number"}), "1234");
    EXPECT_EQ(shown({"--sort", "number", "--reverse"}), "4321");
}

TEST_F(VellumctlEndpoint, ShowsOneOrSaysThatThereIsNone) {
    fill();
    expectDone(run({"show", "15555550001"}), "number             15555550001\nscore              30\n"
                                             "blacklisted until  " +
                                                 timeText(until, now) + "\n");
    expectDone(run({"show", "15555550002", "--json"}), "{\"number\":\"15555550002\",\"score\":10,\"expiry\":0}\n");
    expectFailed(run({"show", "15555550009"}), 1,
                 "vellumctl endpoint show: 15555550009 is not in the daemon's memory: nothing was counted of it "
                 "lately\n");
}

TEST_F(VellumctlEndpoint, SaysWhenANumberWasComparedByItsBeginOnly) {
    std::string const whole(35, '1');
    m_cache->entry(MSISDN(whole + "2"), currentSlice(), true);
    expectDone(run({"show", whole + "2"}),
               "number             " + whole + "\nscore              0\nblacklisted until  -\n" +
                   "note               only the first 35 of the number's 36 characters are told and were compared\n");
    expectDone(run({"show", whole}), "number             " + whole + "\nscore              0\nblacklisted until  -\n");
    expectDone(run({"remove", whole + "2"}),
               whole +
                   "2 is removed from the daemon's memory (only the first 35 of the number's 36 characters are told "
                   "and were compared)\n");
}

TEST_F(VellumctlEndpoint, RemovesOne) {
    fill();
    expectDone(run({"remove", "15555550001"}), "15555550001 is removed from the daemon's memory\n");
    expectDone(run({"remove", "15555550001"}), "15555550001 was not in the daemon's memory\n");
    EXPECT_EQ(held().size(), 2U);
}

TEST_F(VellumctlEndpoint, EditsTheBlacklistAndShowsItWhateverTheCFunctionAnswers) {
    EndpointTables::run({"insert into mms_exempt values ('11')"});
    expectDone(runWithSettings({"blacklist", "add", "15555550100", "+15555550101"}),
               "15555550100 is on the blacklist\n+15555550101 is on the blacklist\n");
    EXPECT_THAT(blacklistHeld(), ElementsAre("+15555550101", "15555550100")) << "the daemon has been told";
    expectDone(runWithSettings({"blacklist", "list"}), "NUMBER\n+15555550101\n15555550100\n");
    expectDone(runWithSettings({"blacklist", "list", "--json"}), "[\n\"+15555550101\",\n\"15555550100\"\n]\n");
    expectDone(runWithSettings({"blacklist", "remove", "15555550100"}), "15555550100 is not on the blacklist\n");
    expectDone(runWithSettings({"blacklist", "list", "--no-header"}), "+15555550101\n");
    EXPECT_THAT(blacklistHeld(), ElementsAre("+15555550101"));
    EXPECT_THAT(exemptRows(), ElementsAre("11"));
}

TEST_F(VellumctlEndpoint, EditsTheExemptList) {
    expectDone(runWithSettings({"exempt", "list"}), "NUMBER\n");
    expectDone(runWithSettings({"exempt", "list", "--json"}), "[]\n");
    expectDone(runWithSettings({"exempt", "add", "15555550100"}), "15555550100 is on the exempt list\n");
    expectDone(runWithSettings({"exempt", "list", "--no-header"}), "15555550100\n");
    expectDone(runWithSettings({"exempt", "remove", "15555550100"}), "15555550100 is not on the exempt list\n");
    EXPECT_THAT(exemptHeld(), IsEmpty());
    EXPECT_THAT(blacklistRows(), IsEmpty());
}

TEST_F(VellumctlEndpoint, RefusesAnythingButASubscriberNumberFirst) {
    writeSettings({}); // nothing is asked of a database before
    for (std::vector<std::string> const& command : {std::vector<std::string>{"show"},
                                                    {"remove"},
                                                    {"blacklist", "add"},
                                                    {"blacklist", "remove"},
                                                    {"exempt", "add"},
                                                    {"exempt", "remove"}}) {
        for (std::string const number : {"", "x", "1x", "1 2", "+", "1'", "1; drop table mms_blacklist", "\x1b[2J",
                                         "1234567890123456789012345678901234567"}) {
            std::vector<std::string> words = command;
            words.push_back(number);
            bool const needsSettings = command.size() > 1;
            ChildResult const result = needsSettings ? runWithSettings(words) : run(words);
            expectFailed(result, 2,
                         "\" is no subscriber number: expected digits, 36 characters at most; a + may come "
                         "first\n");
        }
    }
}

TEST_F(VellumctlEndpoint, ShowsScoresOfTheTable) {
    fill();
    std::string const first = "15555550001  30     " + timeText(until, now) + "\n";
    std::string const second = "15555550002  10     -\n";
    std::string const third = "15555550003  20     " + timeText(over, now) + "\n";
    std::string const header = "NUMBER       SCORE  BLACKLISTED UNTIL\n";
    expectDone(runWithSettings({"scores"}), header + first + second + third);
    expectDone(runWithSettings({"scores", "--sort", "score"}), header + second + third + first);
    expectDone(runWithSettings({"scores", "--sort", "expiry", "--limit", "2"}), header + second + third);
    EXPECT_EQ(
        json::parse(runWithSettings({"scores", "--sort", "number", "--limit", "1", "--json"}).out, nullptr, false),
        json({{{"number", "15555550001"}, {"score", 30}, {"expiry", until}}}));
}

TEST_F(VellumctlEndpoint, ScoreOfNoNumberIsSaidAndTheOthersAreShown) {
    MMSReputation::ScoreTable::nextRefresh = now + 1000; // the table stays as it is
    EndpointTables::run({"insert into mms_repuation_score values ('15555550001', 2, 0), ('1 2', 3, 0), "
                         "('15555550003', 4, 0), (char(27), 5, 0)"});
    ChildResult const result = runWithSettings({"scores", "--no-header"});
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.out, "15555550001  2  -\n15555550003  4  -\n");
    EXPECT_EQ(result.err, "row of mms_repuation_score skipped: \"\\x1b\" is no subscriber number, expected digits\n"
                          "row of mms_repuation_score skipped: \"1 2\" is no subscriber number, expected digits\n");
    ChildResult const program = runWithSettings({"scores", "--json"});
    EXPECT_EQ(program.exitCode, 0);
    EXPECT_EQ(json::parse(program.out, nullptr, false).size(), 2U);
}

TEST_F(VellumctlEndpoint, ScoreRowThatCannotBeReadIsAFailureBehindTheOthers) {
    MMSReputation::ScoreTable::nextRefresh = now + 1000;
    EndpointTables::run({"alter table mms_repuation_score drop primary key",
                         "insert into mms_repuation_score values ('15555550001', 2, 0), ('', 3, 0)"});
    ChildResult const result = runWithSettings({"scores", "--no-header", "--sort", "score"});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.out, "15555550001  2  -\n");
    EXPECT_THAT(result.err, HasSubstr("Invalid EndpointReputationScore Entry"));
}

TEST_F(VellumctlEndpoint, WrongWordsAreUsage) {
    expectFailed(runWithSettings({"scores", "--sort", "name"}), 2,
                 "--sort \"name\" is not known: expected score, expiry or number");
    expectFailed(runWithSettings({"scores", "--limit", "0"}), 2, "--limit 0 is out of range");
    expectFailed(run({"list", "--sort", "name"}), 2, "--sort \"name\" is not known: expected number, score or expiry");
    expectFailed(runWithSettings({"blacklist", "add"}), 2, "NUMBER");
}

TEST_F(VellumctlEndpoint, WithoutTheDatabaseTheReasonIsTold) {
    Database::Server account = server().account();
    account.password = "wrong";
    writeSettings(account);
    expectFailed(runWithSettings({"blacklist", "add", "1"}), 1,
                 "vellumctl endpoint blacklist add: 1: Connection (code 4)");
    expectFailed(runWithSettings({"blacklist", "list"}), 1, "Access denied");
    expectFailed(run({"exempt", "list", "--settings", "/nonexistent.toml"}), 1,
                 "the lists are in the database, and the daemon's settings have its account: /nonexistent.toml");
}

TEST_F(VellumctlEndpoint, WithoutTheDaemonListsAreEditedAndScoresAreNotShown) {
    std::vector<std::string> const nowhere{"--port", "1", "--settings", settings()};
    auto const runNowhere = [&](std::vector<std::string> words) {
        words.insert(words.begin(), "endpoint");
        words.insert(words.end(), nowhere.begin(), nowhere.end());
        return runChild(VELLUM_BINARY_DIR "/bin/vellumctl", words, {});
    };
    ChildResult const added = runNowhere({"blacklist", "add", "15555550100"});
    EXPECT_EQ(added.exitCode, 0);
    EXPECT_EQ(added.out, "15555550100 is on the blacklist\n");
    EXPECT_THAT(added.err, HasSubstr("the daemon could not be told, and reads the list at its next start: "
                                     "s_signalMMSReputationUpated: "));
    EXPECT_THAT(blacklistRows(), ElementsAre("15555550100"));
    expectFailed(runNowhere({"scores"}), 3, "no state daemon on port 1: Connection refused");
}

TEST_F(VellumctlEndpoint, RebuildThatFailsIsTold) {
    add(1);
    EndpointTables::run({"drop table mms_repuation_score"});
    ChildResult const result = runWithSettings({"scores", "--no-header"});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.out, "");
    EXPECT_THAT(result.err, HasSubstr("The daemon's log may say more."));
}

} // namespace
} // namespace Vellum::Tools
