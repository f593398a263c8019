#include "tests/tools/VellumctlFixture.h"

#include <atomic>
#include <mutex>

namespace Vellum::Tools {
namespace {

using nlohmann::json;

json load(bool loaded, unsigned int rows, std::string const& problem = "") {
    return {{"attempted", true}, {"loaded", loaded}, {"rows", rows}, {"problem", problem}};
}

json statusOf(json const& tupleLoad, json const& exemptionLoad) {
    return {{"version", "1.2.3"},
            {"greylist", {{"tuples", {{"load", tupleLoad}}}, {"exemptions", {{"load", exemptionLoad}}}}}};
}

json const preview = {{"path", "/backup.sql"},
                      {"script", {{"tuples", 10}, {"exemptions", 2}, {"complete", true}}},
                      {"tables", {{"tuples", 11}, {"exemptions", 3}}},
                      {"caches", {{"tuples", 12}, {"exemptions", 4}}}};
json const restored = {
    {"path", "/backup.sql"}, {"restored", true}, {"loaded", {{"tuples", 10}, {"exemptions", 2}}}, {"milliseconds", 12}};

class VellumctlAdmin : public VellumctlFixture {
  protected:
    ~VellumctlAdmin() override { std::lock_guard<std::mutex> const hold(lock); } // what a worker kept is seen here

    // Answers restore requests as a daemon would, and keeps what was asked.
    void answerRestores(json const& outcome) {
        answer(IPC::PduType::adminRestore, [this, outcome](IPC::SocketIPC& client, IPC::Pdu const& request) {
            json const asked = json::parse(IPC::payloadText(request));
            std::lock_guard<std::mutex> const hold(lock);
            requests.push_back(asked);
            bool const dryRun = asked.value("dry_run", false);
            if (!dryRun) {
                sendJson(client, IPC::PduType::adminProgress, {{"done", 1}, {"total", 2}});
            }
            sendJson(client, IPC::PduType::adminReply, dryRun ? preview : outcome);
            return 0;
        });
    }
    std::vector<json> asked() {
        std::lock_guard<std::mutex> const hold(lock);
        return requests;
    }
    static json dryRun() { return {{"path", "/backup.sql"}, {"dry_run", true}}; }
    static json realRun() { return {{"path", "/backup.sql"}}; }

    // A reload that makes of `before` what the next status tells.
    void answerReload(json const& before, json const& after) {
        answer(IPC::PduType::adminStatus, [this, before, after](IPC::SocketIPC& client, IPC::Pdu const&) {
            sendJson(client, IPC::PduType::adminReply, reloaded ? after : before);
            return 0;
        });
        answer(IPC::PduType::reloadGreylist, [this](IPC::SocketIPC&, IPC::Pdu const&) {
            reloaded = true;
            return 0;
        });
    }

    std::atomic<bool> reloaded{false};
    std::mutex lock;
    std::vector<json> requests; // under lock
};

TEST_F(VellumctlAdmin, StatusIsShownAsTextOrAsTheDaemonsJson) {
    json const status = statusOf(load(true, 7), load(true, 1));
    answerJson(IPC::PduType::adminStatus, status);
    ChildResult const text = run({"status"});
    EXPECT_EQ(text.exitCode, 0);
    EXPECT_EQ(text.out.find("Daemon       1.2.3, process 0"), 0U) << text.out;
    EXPECT_NE(text.out.find("\nTuples       0 of 0; 7 rows loaded\n"), std::string::npos) << text.out;
    ChildResult const program = run({"status", "--json"});
    EXPECT_EQ(json::parse(program.out), status);
}

TEST_F(VellumctlAdmin, JsonOfTheDaemonIsPlainAscii) {
    answerJson(IPC::PduType::adminStatus, {{"settings", "\xc2\x9b\x7f\xc3\xa9"}});
    EXPECT_EQ(run({"status", "--json"}).out, "{\n  \"settings\": \"\\u009b\\u007f\\u00e9\"\n}\n");
}

TEST_F(VellumctlAdmin, AnAnswerThatIsNoJsonIsIncomplete) {
    for (char const* reply : {"nonsense", "[]", ""}) {
        answer(IPC::PduType::adminStatus, [reply](IPC::SocketIPC& client, IPC::Pdu const&) {
            client.send(IPC::PduType::adminReply, reply, std::string(reply).size());
            return 0;
        });
        EXPECT_EQ(run({"status"}).exitCode, 4) << reply;
    }
    answerJson(IPC::PduType::adminStatus, {{"settings", 7}});
    EXPECT_EQ(run({"status"}).exitCode, 4);
}

TEST_F(VellumctlAdmin, ADaemonWithoutAdministrationSaysNothing) {
    EXPECT_EQ(run({"status"}).exitCode, 3);
}

TEST_F(VellumctlAdmin, ABackupTellsItsNumbers) {
    answerJson(IPC::PduType::adminBackup, {{"accepted", true},
                                           {"tuples", 12},
                                           {"exemptions", 3},
                                           {"bytes", 1500},
                                           {"milliseconds", 40},
                                           {"left_out", 1}});
    ChildResult const result = run({"backup"});
    EXPECT_EQ(result.out, "accepted by the database daemon: 12 tuples and 3 exemptions, 1.5 kB in 40 ms, 1 record "
                          "left out (the log says which)\n");
    EXPECT_EQ(result.exitCode, 0);
}

TEST_F(VellumctlAdmin, ARefusalIsInTheDaemonsWords) {
    json const refusal = {{"error", "backups are off: the last load failed\n"}};
    answerJson(IPC::PduType::adminBackup, refusal);
    ChildResult const text = run({"backup"});
    EXPECT_EQ(text.exitCode, 1);
    EXPECT_EQ(text.out, "");
    EXPECT_EQ(text.err, "vellumctl backup: backups are off: the last load failed\\n\n");
    ChildResult const program = run({"backup", "--json"});
    EXPECT_EQ(program.exitCode, 1);
    EXPECT_EQ(json::parse(program.out), refusal);
}

TEST_F(VellumctlAdmin, AcceptEmptySaysWhatReplacesTheTables) {
    answerJson(IPC::PduType::adminAcceptEmpty, {{"changed", true}, {"tuples", 0}, {"exemptions", 1}});
    ChildResult const accepted = run({"greylist", "accept-empty"});
    EXPECT_EQ(accepted.out, "accepted: the next backup replaces the tables by 0 tuples and 1 exemption\n");
    answerJson(IPC::PduType::adminAcceptEmpty, {{"changed", false}, {"tuples", 0}, {"exemptions", 1}});
    ChildResult const needless = run({"greylist", "accept-empty"});
    EXPECT_EQ(needless.out, "nothing to accept: backups are on\n");
    EXPECT_EQ(needless.exitCode, 0);
}

TEST_F(VellumctlAdmin, AReloadTellsWhatWasLoaded) {
    answerReload(statusOf(load(true, 1), load(true, 1)), statusOf(load(true, 7), load(true, 2)));
    ChildResult const result = run({"greylist", "reload"});
    EXPECT_TRUE(reloaded);
    EXPECT_EQ(result.out, "7 tuples and 2 exemptions loaded\n");
    EXPECT_EQ(result.exitCode, 0);
}

TEST_F(VellumctlAdmin, AReloadThatFailsNamesTheRow) {
    json const after = statusOf(load(false, 0, "row 17 of grey_list"), load(true, 2));
    answerReload(statusOf(load(true, 1), load(true, 1)), after);
    ChildResult const result = run({"greylist", "reload"});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err.find("vellumctl greylist reload: the tuples could not be loaded: row 17 of grey_list\n"), 0U)
        << result.err;
    EXPECT_EQ(json::parse(run({"greylist", "reload", "--json"}).out), after);
}

TEST_F(VellumctlAdmin, AReloadThatEndsTheConnectionHasFailed) {
    answerJson(IPC::PduType::adminStatus, statusOf(load(true, 1), load(true, 1)));
    answer(IPC::PduType::reloadGreylist, [](IPC::SocketIPC&, IPC::Pdu const&) { return -1; });
    ChildResult const result = run({"greylist", "reload"});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.err.find("vellumctl greylist reload: the daemon could not reload"), 0U) << result.err;
}

TEST_F(VellumctlAdmin, ARestoreTellsWhatItReplacesAndWhatItLoaded) {
    answerRestores(restored);
    ChildResult const result = run({"restore", "/backup.sql", "--yes"});
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_NE(result.out.find("Replaces     11 tuples and 3 exemptions in the tables\n"
                              "             12 tuples and 4 exemptions in the daemon's memory\n"
                              "Whatever is newer than the script is lost.\n"
                              "restored: 10 tuples and 2 exemptions loaded in 12 ms\n"),
              std::string::npos)
        << result.out;
    EXPECT_EQ(asked(), (std::vector<json>{dryRun(), realRun()}));
}

TEST_F(VellumctlAdmin, ARestoreForProgramsIsOneJsonValue) {
    answerRestores(restored);
    ChildResult const result = run({"restore", "/backup.sql", "--yes", "--json"});
    EXPECT_EQ(json::parse(result.out), restored);
    EXPECT_NE(result.err.find("Replaces"), std::string::npos) << "people are told all the same";
}

TEST_F(VellumctlAdmin, WithoutATerminalARestoreNeedsAYes) {
    answerRestores(restored);
    ChildResult const result = run({"restore", "/backup.sql"});
    EXPECT_EQ(result.exitCode, 2);
    EXPECT_EQ(result.err,
              "vellumctl restore: there is no terminal to ask on: say --yes to restore without being asked\n");
    EXPECT_TRUE(asked().empty());
}

TEST_F(VellumctlAdmin, ARestoreAsksOnATerminal) {
    answerRestores(restored);
    ChildOptions terminal;
    terminal.terminal = true;
    terminal.input = "y\n";
    ChildResult const yes = run({"restore", "/backup.sql"}, terminal);
    EXPECT_EQ(yes.exitCode, 0);
    EXPECT_NE(yes.err.find("Restore it? [y/N] "), std::string::npos) << yes.err;
    EXPECT_EQ(asked(), (std::vector<json>{dryRun(), realRun()}));
}

TEST_F(VellumctlAdmin, WhatIsNoYesIsANo) {
    for (char const* input : {"n\n", "\n", "yesterday\n"}) {
        requests.clear();
        answerRestores(restored);
        ChildOptions terminal;
        terminal.terminal = true;
        terminal.input = input;
        ChildResult const result = run({"restore", "/backup.sql"}, terminal);
        EXPECT_EQ(result.exitCode, 1);
        EXPECT_NE(result.err.find("vellumctl restore: not restored"), std::string::npos) << result.err;
        EXPECT_EQ(asked(), (std::vector<json>{dryRun()}));
    }
}

TEST_F(VellumctlAdmin, AScriptThatCannotBeReadIsNotAskedAbout) {
    answerJson(IPC::PduType::adminRestore, {{"error", "/backup.sql: No such file or directory"}});
    ChildResult const result = run({"restore", "/backup.sql", "--yes"});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, "vellumctl restore: /backup.sql: No such file or directory\n");
}

TEST_F(VellumctlAdmin, ARestoreThatCouldNotBeLoadedIsAFailure) {
    json outcome = restored;
    outcome["error"] = "the tables were restored, but could not be loaded: row 3 of grey_list";
    answerRestores(outcome);
    ChildResult const result = run({"restore", "/backup.sql", "--yes", "--json"});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(json::parse(result.out), outcome);
    EXPECT_NE(result.err.find("could not be loaded: row 3 of grey_list"), std::string::npos) << result.err;
}

} // namespace
} // namespace Vellum::Tools
