#include "tools/vellumctl/StatusText.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <limits>

namespace Vellum::Tools {
namespace {

constexpr std::int64_t now = 1795255440; // 2026-11-21 10:04:00 UTC

class StatusText : public testing::Test {
  protected:
    StatusText() {
        ::setenv("TZ", "UTC", 1);
        ::tzset();
    }

    static Json load(std::uint64_t rows) {
        return {{"attempted", true}, {"loaded", true}, {"rows", rows}, {"problem", ""}};
    }
    static Json status() {
        return {
            {"version", "1.2.3"},
            {"pid", 4711},
            {"started", now - 3 * 86400 - 4 * 3600},
            {"uptime_seconds", 3 * 86400 + 4 * 3600},
            {"settings", "/etc/vellum/vellumd.toml"},
            {"policy_listeners", {"127.0.0.1:10023", "unix:/run/vellum/policy"}},
            {"greylist",
             {{"tuples", {{"size", 123456}, {"capacity", 1000000}, {"load", load(123000)}}},
              {"exemptions", {{"size", 1}, {"capacity", 0}, {"load", load(1)}}}}},
            {"backup",
             {{"allowed", true},
              {"reason", ""},
              {"last",
               {{"accepted", true},
                {"started", now - 180},
                {"milliseconds", 340},
                {"tuples", 123456},
                {"exemptions", 1},
                {"left_out", 0},
                {"bytes", 12345678},
                {"problem", ""}}}}},
            {"database", {{"reachable", true}, {"as_of", now - 60}, {"problem", ""}}},
            {"active", true},
            {"decisions",
             {{{"action", "greylist"}, {"reason", "new"}, {"count", 1234}},
              {{"action", "pass"}, {"reason", "known"}, {"count", 199998}}}},
            {"fronts",
             {{{"front", "policy"},
               {"decisions",
                {{{"action", "greylist"}, {"reason", "new"}, {"count", 1234}},
                 {{"action", "pass"}, {"reason", "known"}, {"count", 99999}}}}},
              {{"front", "milter"}, {"decisions", {{{"action", "pass"}, {"reason", "known"}, {"count", 99999}}}}}}}};
    }
    // A backup of the greylist and of another family.
    static void expectBackupTold(char const* family, Json const& report, std::string const& told) {
        Json answer = status()["backup"]["last"];
        answer[family] = report;
        EXPECT_EQ(acceptedBackupText(answer),
                  "accepted by the database daemon: 123456 tuples and 1 exemption, 12.3 MB in 340 ms\n"
                  "accepted by the database daemon: " +
                      told + "\n");
    }
    // A restore of a family's script with 120 rows, over 130 in the tables and 14 entries in memory.
    static void expectRestoreTold(char const* rows, char const* entries, std::string const& preview,
                                  std::string const& loaded) {
        std::string const text = previewText({{"path", "/f.sql"},
                                              {"script", {{rows, 120}, {"tuples", 0}, {"complete", true}}},
                                              {"tables", {{rows, 130}}},
                                              {"caches", {{entries, 14}}}},
                                             now);
        EXPECT_NE(text.find(preview), std::string::npos) << text;
        EXPECT_EQ(text.find("tuples"), std::string::npos) << text;
        EXPECT_EQ(restoredText({{"loaded", {{"tuples", 0}, {"exemptions", 0}, {rows, 120}}}, {"milliseconds", 7}}),
                  "restored: " + loaded + " loaded in 7 ms\n");
    }
};

TEST_F(StatusText, AHealthyDaemonAtAGlance) {
    EXPECT_EQ(statusText(status(), now),
              "Daemon       1.2.3, process 4711, up 3 d 4 h (since 2026-11-18 06:04)\n"
              "Settings     /etc/vellum/vellumd.toml\n"
              "Policy       127.0.0.1:10023, unix:/run/vellum/policy\n"
              "Tuples       123456 of 1000000 (12 %); 123000 rows loaded\n"
              "Exemptions   1 of 0; 1 row loaded\n"
              "Backups      on\n"
              "Last backup  2026-11-21 10:01 (3 min ago): 123456 tuples and 1 exemption, 12.3 MB in 340 ms\n"
              "Database     reachable, as of 2026-11-21 10:03 (1 min ago)\n"
              "Decisions    policy greylist new            1234\n"
              "             policy pass known              99999\n"
              "             milter pass known              99999\n")
        << "a recipient that both fronts were asked about is counted by each, and by no sum";
}

TEST_F(StatusText, WhatIsWrongStandsOut) {
    Json ill = status();
    ill["greylist"]["tuples"]["load"] = {
        {"attempted", true}, {"loaded", false}, {"rows", 0}, {"problem", "row 17 of grey_list"}};
    ill["greylist"]["exemptions"]["load"] = {{"attempted", false}};
    ill["backup"] = {{"allowed", false}, {"reason", "the last load failed"}, {"last", nullptr}};
    ill["database"] = {{"reachable", false}, {"as_of", now}, {"problem", "Connection refused"}};
    ill["active"] = false;
    ill["fronts"] = Json::array();
    EXPECT_EQ(statusText(ill, now), "Daemon       1.2.3, process 4711, up 3 d 4 h (since 2026-11-18 06:04)\n"
                                    "Settings     /etc/vellum/vellumd.toml\n"
                                    "Policy       127.0.0.1:10023, unix:/run/vellum/policy\n"
                                    "Unit         STANDBY: another one is active and makes the backups\n"
                                    "Tuples       123456 of 1000000 (12 %); THE LAST LOAD FAILED: row 17 of grey_list\n"
                                    "Exemptions   1 of 0; nothing loaded yet\n"
                                    "Backups      OFF: the last load failed\n"
                                    "Last backup  none since the start\n"
                                    "Database     NOT REACHABLE, as of 2026-11-21 10:04 (now): Connection refused\n");
}

TEST_F(StatusText, AScriptThatWasRefusedStandsOutBesideTheBackupThatWasAccepted) {
    Json ill = status();
    Json const refused = {{"script", 18}, {"time", now - 60}, {"reason", "Unknown column\n'x'"}};
    ill["backup"]["ran"] = {{"script", 17}, {"accepted", now - 3600}};
    ill["backup"]["refused"] = refused;
    ill["reputation"]["backup"] = {{"allowed", true}, {"last", nullptr}, {"ran", nullptr}, {"refused", refused}};
    std::string const text = statusText(ill, now);
    EXPECT_NE(text.find("Last backup  2026-11-21 10:01 (3 min ago): 123456 tuples and 1 exemption, 12.3 MB in 340 ms\n"
                        "             THE LAST SCRIPT WAS REFUSED, 2026-11-21 10:03 (1 min ago): Unknown "
                        "column\\n'x'\n"
                        "             the tables hold the backup of 2026-11-21 09:04 (1 h ago)\n"),
              std::string::npos)
        << text;
    EXPECT_NE(text.find("             last backup none since the start\n"
                        "             THE LAST SCRIPT WAS REFUSED, 2026-11-21 10:03 (1 min ago): Unknown "
                        "column\\n'x'\n"
                        "             the tables hold what was saved before it\n"),
              std::string::npos)
        << text;
    ill["backup"]["refused"] = nullptr;
    ill["reputation"]["backup"]["refused"] = nullptr;
    EXPECT_EQ(statusText(ill, now).find("REFUSED"), std::string::npos);
    EXPECT_EQ(statusText(ill, now).find("the tables hold"), std::string::npos);
}

TEST_F(StatusText, WhatADaemonDoesNotTellIsLeftOut) {
    EXPECT_EQ(statusText(Json::object(), now), "Daemon       -, process 0, up 0 s (since 1970-01-01 00:00)\n"
                                               "Settings     -\n"
                                               "Policy       -\n"
                                               "Tuples       0 of 0; nothing loaded yet\n"
                                               "Exemptions   0 of 0; nothing loaded yet\n"
                                               "Backups      OFF: -\n"
                                               "Last backup  none since the start\n"
                                               "Database     not asked yet\n");
}

TEST_F(StatusText, TextsOfTheDaemonCannotDriveATerminal) {
    Json forged = status();
    forged["settings"] = "\x1b[2J\nBackups      on";
    EXPECT_NE(statusText(forged, now).find("Settings     \\x1b[2J\\nBackups      on\n"), std::string::npos);
}

TEST_F(StatusText, AnAnswerOfAnotherTypeIsNoticed) {
    Json wrong = status();
    wrong["settings"] = 7;
    EXPECT_THROW(statusText(wrong, now), Json::exception);
}

TEST_F(StatusText, LoadsThatSucceededHaveNoProblem) {
    EXPECT_EQ(loadProblem(status()), "");
    EXPECT_EQ(loadedText(status()), "123000 tuples and 1 exemption loaded");
}

TEST_F(StatusText, EachLoadThatFailedIsNamedWithItsRow) {
    Json failed = status();
    failed["greylist"]["tuples"]["load"] = {{"attempted", true}, {"loaded", false}, {"problem", "row 17 of grey_list"}};
    EXPECT_EQ(loadProblem(failed), "the tuples could not be loaded: row 17 of grey_list");
    failed["greylist"]["exemptions"]["load"] = {{"attempted", false}};
    EXPECT_EQ(loadProblem(failed), "the tuples could not be loaded: row 17 of grey_list; "
                                   "the exemptions could not be loaded: not tried");
}

TEST_F(StatusText, ABackupSaysWhatIsNotInIt) {
    Json backup = status()["backup"]["last"];
    backup["left_out"] = 2;
    EXPECT_EQ(backupText(backup),
              "123456 tuples and 1 exemption, 12.3 MB in 340 ms, 2 records left out (the log says which)");
    backup["accepted"] = false;
    backup["problem"] = "no daemon";
    EXPECT_EQ(backupText(backup), "FAILED: no daemon");
}

TEST_F(StatusText, ARestoreIsPreviewedBesideWhatItReplaces) {
    Json preview = {{"path", "/backup.sql"},
                    {"script",
                     {{"bytes", 1000},
                      {"modified", now - 3600},
                      {"tuples", 10},
                      {"exemptions", 2},
                      {"newest", now - 7200},
                      {"complete", true}}},
                    {"tables", {{"tuples", 11}, {"exemptions", 3}}},
                    {"caches", {{"tuples", 12}, {"exemptions", 4}}}};
    EXPECT_EQ(previewText(preview, now), "Script       /backup.sql\n"
                                         "             written 2026-11-21 09:04 (1 h ago), 1.0 kB\n"
                                         "             10 tuples and 2 exemptions, the newest of 2026-11-21 08:04 "
                                         "(2 h ago)\n"
                                         "Replaces     11 tuples and 3 exemptions in the tables\n"
                                         "             12 tuples and 4 exemptions in the daemon's memory\n"
                                         "Whatever is newer than the script is lost.\n");
    preview["script"]["complete"] = false;
    preview["script"]["newest"] = 0;
    std::string const text = previewText(preview, now);
    EXPECT_NE(text.find("IT DOES NOT END AS A BACKUP DOES"), std::string::npos);
    EXPECT_EQ(text.find("the newest of"), std::string::npos);
}

TEST_F(StatusText, SenderReputationHasLinesOfItsOwn) {
    Json all = status();
    Json const last = {{"accepted", true}, {"started", now - 180}, {"milliseconds", 40}, {"records", 1},
                       {"addresses", 10},  {"left_out", 0},        {"bytes", 1500},      {"problem", ""}};
    Json const load = {{"attempted", true}, {"loaded", true}, {"rows", 120}, {"problem", ""}};
    all["reputation"] = {{"entries", {{"size", 10}, {"capacity", 10000}, {"load", load}}},
                         {"backup", {{"allowed", true}, {"reason", ""}, {"last", last}}}};
    EXPECT_NE(statusText(all, now).find("Reputation   10 of 10000 (0 %); 120 rows loaded\n"
                                        "             backups on\n"
                                        "             last backup 2026-11-21 10:01 (3 min ago): 1 hour of 10 "
                                        "addresses, 1.5 kB in 40 ms\n"),
              std::string::npos)
        << statusText(all, now);
    EXPECT_EQ(reputationLoadProblem(all), "");
    EXPECT_EQ(reputationLoadedText(all), "120 hours loaded");
    all["reputation"]["entries"]["load"] = {{"attempted", true}, {"loaded", false}, {"problem", "row 3"}};
    all["reputation"]["backup"] = {{"allowed", false}, {"reason", "row 3"}, {"last", nullptr}};
    EXPECT_NE(statusText(all, now).find("THE LAST LOAD FAILED: row 3\n"
                                        "             BACKUPS OFF: row 3\n"
                                        "             last backup none since the start\n"),
              std::string::npos)
        << statusText(all, now);
    EXPECT_EQ(reputationLoadProblem(all), "sender reputation could not be loaded: row 3");
}

TEST_F(StatusText, EndpointsHaveLinesOfTheirOwn) {
    Json all = status();
    Json const last = {{"accepted", true}, {"started", now - 180}, {"milliseconds", 40}, {"slices", 1},
                       {"subscribers", 1}, {"left_out", 0},        {"bytes", 1500},      {"problem", ""}};
    all["endpoints"] = {{"entries", {{"size", 10}, {"capacity", 10000}, {"load", load(120)}}},
                        {"exempt_list", {{"load", load(3)}}},
                        {"blacklist", {{"load", load(1)}}},
                        {"backup", {{"allowed", true}, {"reason", ""}, {"last", last}}}};
    EXPECT_NE(statusText(all, now).find("Endpoints    10 of 10000 (0 %); 120 rows loaded\n"
                                        "             exempt list: 3 rows loaded\n"
                                        "             blacklist: 1 row loaded\n"
                                        "             backups on\n"
                                        "             last backup 2026-11-21 10:01 (3 min ago): 1 slice of 1 "
                                        "subscriber, 1.5 kB in 40 ms\n"),
              std::string::npos)
        << statusText(all, now);
    EXPECT_EQ(endpointLoadProblem(all), "");
    EXPECT_EQ(endpointLoadedText(all), "120 slices, 3 exempt and 1 blacklisted number loaded");
    all["endpoints"]["blacklist"]["load"] = {{"attempted", true}, {"loaded", false}, {"problem", "row 3"}};
    EXPECT_EQ(endpointLoadProblem(all), "the blacklist could not be loaded: row 3");
    all["endpoints"]["exempt_list"]["load"] = {{"attempted", false}, {"loaded", false}, {"problem", ""}};
    EXPECT_EQ(endpointLoadProblem(all),
              "the exempt list could not be loaded: not tried; the blacklist could not be loaded: row 3");
    for (char const* part : {"entries", "exempt_list", "blacklist"}) {
        all["endpoints"][part]["load"] = {{"attempted", true}, {"loaded", false}, {"problem", "row 3"}};
    }
    all["endpoints"]["backup"] = {{"allowed", false}, {"reason", "row 3"}, {"last", nullptr}};
    EXPECT_EQ(endpointLoadProblem(all), "the endpoint entries could not be loaded: row 3")
        << "what comes behind is missed for the same reason";
    EXPECT_NE(statusText(all, now).find("THE LAST LOAD FAILED: row 3\n"
                                        "             BACKUPS OFF: row 3\n"
                                        "             last backup none since the start\n"),
              std::string::npos)
        << statusText(all, now);
}

TEST_F(StatusText, BackupAndRestoreTellOfEndpoints) {
    Json const report = {{"accepted", true}, {"slices", 2}, {"subscribers", 1}, {"bytes", 300}, {"milliseconds", 4}};
    expectBackupTold("endpoints", report, "2 slices of 1 subscriber, 300 bytes in 4 ms");
    expectRestoreTold("slices", "subscribers",
                      "             120 slices of endpoints\n"
                      "Replaces     130 slices in the tables\n"
                      "             14 subscribers in the daemon's memory\n",
                      "120 slices");
    EXPECT_EQ(acceptedText({{"changed", true}, {"subscribers", 1}}),
              "accepted: the next backup replaces the tables by 1 subscriber\n");
}

TEST_F(StatusText, BackupAndRestoreTellOfSenderReputation) {
    Json const report = {{"accepted", true}, {"records", 2}, {"addresses", 1}, {"bytes", 300}, {"milliseconds", 4}};
    expectBackupTold("reputation", report, "2 hours of 1 address, 300 bytes in 4 ms");
    expectRestoreTold("reputations", "addresses",
                      "             120 hours of sender reputation\n"
                      "Replaces     130 hours in the tables\n"
                      "             14 addresses in the daemon's memory\n",
                      "120 hours");
    EXPECT_EQ(acceptedText({{"changed", true}, {"addresses", 1}}),
              "accepted: the next backup replaces the tables by 1 address\n");
}

TEST_F(StatusText, NumbersThatNoDaemonSendsAreNoUndefinedBehaviour) {
    Json lies = status();
    lies["pid"] = 1e300; // fits into no integer
    lies["started"] = -1e300;
    EXPECT_NE(statusText(lies, now).find("1.2.3, process 0, up 3 d 4 h (since 1970-01-01 00:00)"), std::string::npos)
        << statusText(lies, now);
    lies["greylist"]["tuples"]["size"] = std::numeric_limits<std::int64_t>::max();
    lies["greylist"]["tuples"]["capacity"] = 1;
    EXPECT_NE(statusText(lies, now).find("9223372036854775807 of 1 (100 %)"), std::string::npos)
        << statusText(lies, now);
    lies["greylist"]["tuples"]["size"] = -5;
    EXPECT_NE(statusText(lies, now).find("-5 of 1 (0 %)"), std::string::npos) << statusText(lies, now);
}

} // namespace
} // namespace Vellum::Tools
