// The replay tool, run as its users run it.
#include "tests/support/TemporaryDirectory.h"
#include "tests/tools/ChildProgram.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace Vellum::Tools {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;
using Json = nlohmann::json;

std::string const sample = VELLUM_SOURCE_DIR "/tests/data/sample-envelopes.tsv";
std::string const rules = VELLUM_SOURCE_DIR "/packaging/greylist-rules.toml";

std::string contentOf(std::string const& path) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

ChildResult replay(std::vector<std::string> const& arguments, std::string const& input = "") {
    ChildOptions options;
    options.input = input;
    return runChild(VELLUM_BINARY_DIR "/bin/vellum-replay", arguments, options);
}

std::string gzipped(std::string const& text) {
    ChildOptions options;
    options.input = text;
    return runChild("/bin/gzip", {"-c"}, options).out;
}

Json replayed(std::string const& rows, std::vector<std::string> arguments = {}) {
    arguments.insert(arguments.begin(), {"-", "--json"});
    ChildResult const result = replay(arguments, rows);
    EXPECT_EQ(result.exitCode, 0) << result.err;
    return Json::parse(result.out);
}

// A delivery with seven columns.
std::string row(long time, std::string const& sender, std::string const& recipient = "me@example.com",
                std::string const& client = "192.0.2.1") {
    return std::to_string(time) + '\t' + client + "\tmx.example.org\t" + sender + '\t' + recipient + "\tham\tx\n";
}

TEST(Replay, TheSampleIsReportedWhole) {
    ChildResult const result = replay({"-", "--rules", rules}, contentOf(sample));
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(result.out, contentOf(VELLUM_SOURCE_DIR "/tests/data/sample-report.txt"));
}

TEST(Replay, TheSampleIsReportedWholeAsJson) {
    ChildResult const result = replay({"-", "--rules", rules, "--json", "--per-hour", "--top", "2"}, contentOf(sample));
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.out, contentOf(VELLUM_SOURCE_DIR "/tests/data/sample-report.json"));
}

TEST(Replay, GzipAndPlainAreTheSame) {
    TemporaryDirectory const directory;
    std::string const path = directory.path() + "/mail.tsv.gz";
    std::string const text = contentOf(sample);
    std::ofstream(path, std::ios::binary) << gzipped(text);
    ChildResult const packed = replay({path, "--json"});
    ChildResult const plain = replay({sample, "--json"});
    EXPECT_EQ(packed.exitCode, 0);
    EXPECT_EQ(packed.out.substr(packed.out.find("\"begin\"")), plain.out.substr(plain.out.find("\"begin\"")));
    EXPECT_EQ(replay({"-", "--json"}, contentOf(path)).out.size(), replay({"-", "--json"}, text).out.size());
}

TEST(Replay, AHalfGzipFileIsRefused) {
    TemporaryDirectory const directory;
    std::string const path = directory.path() + "/mail.tsv.gz";
    std::string const whole = gzipped(contentOf(sample));
    std::ofstream(path, std::ios::binary) << whole.substr(0, whole.size() / 2);
    ChildResult const result = replay({path});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.err, "vellum-replay: " + path + " cannot be read: it ends in the middle of its compressed text\n");
    EXPECT_EQ(result.out, "");
}

TEST(Replay, WhatCannotBeReadIsSaid) {
    ChildResult const missing = replay({"/nonexistent/mail.tsv"});
    EXPECT_EQ(missing.exitCode, 1);
    EXPECT_EQ(missing.err, "vellum-replay: /nonexistent/mail.tsv cannot be read: No such file or directory\n");
    ChildResult const directory = replay({"/"});
    EXPECT_EQ(directory.exitCode, 1);
    EXPECT_EQ(directory.err, "vellum-replay: / cannot be read: Is a directory\n");
    ChildResult const badSettings = replay({sample, "--settings", sample});
    EXPECT_EQ(badSettings.exitCode, 1);
    EXPECT_THAT(badSettings.err, HasSubstr(sample + ":"));
}

TEST(Replay, TheCommandLineIsChecked) {
    EXPECT_EQ(replay({}).exitCode, 2);
    EXPECT_EQ(replay({sample, "--nonsense"}).exitCode, 2);
    for (std::string const retry : {"ten", "0", "-5", "5,", "1e9", "nan", "10 20"}) {
        ChildResult const result = replay({sample, "--retry", retry});
        EXPECT_EQ(result.exitCode, 2) << retry;
        EXPECT_THAT(result.err, HasSubstr("is not a number of minutes above 0")) << retry;
    }
    EXPECT_EQ(replay({sample, "--from", "yesterday"}).exitCode, 2);
    EXPECT_EQ(replay({sample, "--give-up", "-1"}).exitCode, 2);
    EXPECT_EQ(replay({"--help"}).exitCode, 0);
    EXPECT_THAT(replay({"--version"}).out, HasSubstr("vellum-replay "));
}

TEST(Replay, NothingToPlayIsToldByTheExitStatus) {
    ChildResult const result = replay({"-"}, "# only a remark\n\n");
    EXPECT_EQ(result.exitCode, 3);
    EXPECT_THAT(result.out, HasSubstr("No message to play."));
    EXPECT_EQ(replay({"-"}, row(1000, "a@b@c")).exitCode, 3);
}

TEST(Replay, RowsThatCannotBeReadAreSkippedAndTold) {
    std::string const good = row(1000, "jo@example.org");
    std::string const text = good + "\n# remark\nnonsense\n" + "1\t2\t3\t4\t5\t6\t7\t8\t9\t10\n" +
                             row(1001, "a b@example.org") + row(1002, "jo@example.org", "") +
                             row(1003, "jo@example.org", "me@example.com", "192.0.2.256") + row(-1, "jo@example.org") +
                             "12:00\t192.0.2.1\t-\ta@b\tc@d\tham\tx\n" +
                             "99\t192.0.2.1\t-\ta@b\tc@d\tham\tx\tsoon\tgrey\n" + "1004\t192.0.2.1\r\n" + good;
    ChildResult const result = replay({"-"}, text);
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_THAT(result.out, HasSubstr("standard input: 2 messages to one recipient each"));
    EXPECT_THAT(result.out,
                HasSubstr("\nSkipped: 9 rows that cannot be read\n"
                          "  line 4: 1 column, expected 7, 8 or 9 with tabs between them\n"
                          "  line 5: 10 columns, expected 7, 8 or 9 with tabs between them\n"
                          "  line 9: the time \"-1\" is not a whole number of seconds\n"
                          "  line 10: the time \"12:00\" is not a whole number of seconds\n"
                          "  line 11: the delay \"soon\" is not a whole number of seconds\n"
                          "  line 12: 2 columns, expected 7, 8 or 9 with tabs between them\n"
                          "  line 6: \"a b@example.org\" is not a mailbox: a blank, an angle bracket or a second '@' "
                          "is outside quotes\n"
                          "  line 7: \"\" is not a mailbox: it is empty\n"
                          "  line 8: \"192.0.2.256\" is not an IP address\n"));
}

TEST(Replay, OfManySkippedRowsTheFirstAreShown) {
    std::string text = row(1000, "jo@example.org");
    for (int i = 0; i < 12; ++i) {
        text += "x\n";
    }
    ChildResult const result = replay({"-"}, text);
    EXPECT_THAT(result.out, HasSubstr("Skipped: 12 rows"));
    EXPECT_THAT(result.out, HasSubstr("line 11: 1 column"));
    EXPECT_THAT(result.out, Not(HasSubstr("line 12: ")));
    EXPECT_THAT(result.out, HasSubstr("  and 2 more\n"));
}

TEST(Replay, ADeferredMessageComesBackInItsPlaceAmongTheOthers) {
    // The second message comes before the first one's retry at 1600 and the third after it.
    std::string const text = row(1000, "jo@example.org") + row(1299, "jo@example.org") + row(1300, "jo@example.org") +
                             row(1301, "jo@example.org");
    Json const report = replayed(text, {"--retry", "10"});
    EXPECT_EQ(report["first_answers"]["new"], 1);
    EXPECT_EQ(report["first_answers"]["early-retry"], 1);
    EXPECT_EQ(report["first_answers"]["passed"], 1);
    EXPECT_EQ(report["first_answers"]["known"], 1);
    EXPECT_EQ(report["all_answers"]["known"], 3) << "both retries";
    EXPECT_EQ(report["delay_seconds"]["p100"], 600);
    EXPECT_EQ(report["total"]["deferred"], 2);
    EXPECT_EQ(report["total"]["never_let_in"], 0);
    EXPECT_EQ(report["end"], 1299 + 600);
}

TEST(Replay, RetriesGoOnUntilTheMessageIsInOrItsServerGivesUp) {
    Json const patient = replayed(row(1000, "jo@example.org"), {"--retry", "1,2,0.5"});
    EXPECT_EQ(patient["delay_seconds"]["p100"], 60 + 120 + 4 * 30);
    EXPECT_EQ(patient["all_answers"]["early-retry"], 5);
    Json const hasty = replayed(row(1000, "jo@example.org"), {"--retry", "1", "--give-up", "0.08"});
    EXPECT_EQ(hasty["total"]["never_let_in"], 1);
    EXPECT_EQ(hasty["all_answers"]["early-retry"], 4) << "288 seconds";
}

TEST(Replay, RowsOfRefusedAttemptsAreTakenAtTheirWord) {
    std::string const late = "10000\t192.0.2.1\t-\tjo@example.org\tme@example.com\tham\tx\t4000\tgrey\n";
    std::string const quick = "20000\t192.0.2.9\t-\tal@example.org\tme@example.com\tham\tx\t60\tgrey\n";
    Json const report = replayed(quick + late, {"--retry", "30"});
    EXPECT_EQ(report["begin"], 6000) << "in the order of first attempts";
    EXPECT_EQ(report["delay_seconds"]["p10"], 60 + 1800) << "still too early when the row says it was let in";
    EXPECT_EQ(report["delay_seconds"]["p100"], 4000);
    Json const assumed = replayed(quick + late, {"--retry", "30", "--ignore-delays"});
    EXPECT_EQ(assumed["begin"], 6000);
    EXPECT_EQ(assumed["delay_seconds"]["p100"], 1800);
}

TEST(Replay, AServersLogIsPlayedByItsEvents) {
    auto const event = [](long time, char const* name, char const* sender) {
        return std::to_string(time) + "\t192.0.2.1\tmx.example.org\t-\t" + sender + "\tme@example.com\t" + name +
               "\t250\n";
    };
    std::string const text = event(1000, "connect", "-") + event(1001, "reject-dnsbl", "jo@example.org") +
                             event(1002, "accept", "al@example.org") + event(1500, "reject-helo", "jo@example.org");
    Json const accepted = replayed(text);
    EXPECT_EQ(accepted["total"]["messages"], 1);
    EXPECT_EQ(accepted["skipped"]["other_events"], (Json{{"connect", 1}, {"reject-dnsbl", 1}, {"reject-helo", 1}}));
    Json const all = replayed(text, {"--with-rejected"});
    EXPECT_EQ(all["total"]["messages"], 3);
    EXPECT_EQ(all["total"]["never_let_in"], 1) << "a rejected client is not assumed to come back";
    EXPECT_EQ(all["first_answers"]["passed"], 1) << "it did at 1500";
}

TEST(Replay, SettingsAnswerWhatIf) {
    TemporaryDirectory const directory;
    std::string const path = directory.path() + "/what-if.toml";
    std::ofstream(path) << "[greylist]\ndelay_minutes = 60\nauto_exempt_after = 0\nfold_bounce_digits = false\n"
                           "fold_extension = false\nrules = \"rules.toml\"\n";
    std::ofstream(directory.path() + "/rules.toml") << "[[rule]]\nid = 1\nclient = \"192.0.2.0/24\"\n";
    Json const report = replayed(contentOf(sample), {"--settings", path});
    EXPECT_EQ(report["settings"]["delay_minutes"], 60);
    EXPECT_EQ(report["first_answers"]["exempt-rule"], 11);
    EXPECT_EQ(report["first_answers"]["auto-exempt"], 0);
    EXPECT_EQ(report["all_answers"]["new"], 19) << "each mail of the list is a new sender";
    Json const other = replayed(contentOf(sample), {"--settings", path, "--rules", rules});
    EXPECT_EQ(other["first_answers"]["exempt-rule"], 1) << "the rules of the command line instead";
    std::ofstream(path) << "[greylist]\nenabled = false\n";
    EXPECT_EQ(replayed(contentOf(sample), {"--settings", path})["first_answers"]["disabled"], 32);
}

TEST(Replay, APieceOfTimeCanBeChosen) {
    std::string const text = row(1772438399, "a@a.example") + row(1772438400, "b@a.example") +
                             row(1772442000, "c@a.example") + row(1772524800, "d@a.example");
    EXPECT_EQ(replayed(text, {"--from", "2026-03-02 08:00:00"})["total"]["messages"], 3);
    EXPECT_EQ(replayed(text, {"--from", "2026-03-02", "--until", "2026-03-03"})["total"]["messages"], 3);
    EXPECT_EQ(replayed(text, {"--from", "1772442000", "--until", "1772524801"})["total"]["messages"], 2);
}

TEST(Replay, ForeignBytesDoNotReachTheTerminal) {
    std::string const text = row(1000, "j\x1b[2J\xff@example.org") + row(1000, "j\xc3\xb6\xff@example.org");
    ChildResult const result = replay({"-"}, text);
    EXPECT_THAT(result.out, HasSubstr("line 1: \"j\\x1b[2J\\xff@example.org\" is not a mailbox"));
    EXPECT_THAT(result.out, HasSubstr("  j\xc3\xb6\\xff@example.org\n"));
    EXPECT_NO_THROW(Json::parse(replay({"-", "--json"}, text).out));
}

TEST(Replay, AShortRunShowsNoProgress) {
    ChildOptions options;
    options.terminal = true;
    ChildResult const result = runChild(VELLUM_BINARY_DIR "/bin/vellum-replay", {sample}, options);
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.err, "");
}

} // namespace
} // namespace Vellum::Tools
