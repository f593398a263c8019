#include "tools/vellumctl/ExplanationText.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>

namespace Vellum::Tools {
namespace {

constexpr std::int64_t now = 1795255440; // 2026-11-21 10:04:00 UTC

Json counters(int messages, int recipients, int spam) {
    return {
        {"messages", messages}, {"recipients", recipients}, {"invalid_recipients", 0}, {"spam", spam}, {"infected", 0}};
}

// Nothing is known of anybody.
Json stranger() {
    return {{"verdict", {{"action", "greylist"}, {"reason", "new"}, {"seconds_left", 300}, {"stage", "recipient"}}},
            {"client", {{"address", "192.0.2.1"}, {"name", nullptr}, {"user", nullptr}, {"network", "192.0.2.0/24"}}},
            {"sender", "jo@example.org"},
            {"recipient", "me@example.com"},
            {"endpoint", nullptr},
            {"rate",
             {{"sender", "jo@example.org"},
              {"known", false},
              {"block", nullptr},
              {"totals", counters(0, 0, 0)},
              {"limits", counters(0, 0, 0)}}},
            {"reputation",
             {{"known", false},
              {"score", 0},
              {"state", 0},
              {"last_modified", 0},
              {"defer_score", 0},
              {"reject_score", 0},
              {"hours", Json::array()}}},
            {"rules", {{"count", 2}, {"match", nullptr}}},
            {"exemption", {{"possible", true}, {"until", 0}, {"after", 5}}},
            {"tuple", {{"situation", "new"}, {"first_seen", 0}, {"pass_time", 0}, {"expiry", 0}}}};
}

class ExplanationText : public testing::Test {
  protected:
    ExplanationText() {
        ::setenv("TZ", "UTC", 1);
        ::tzset();
    }
};

TEST_F(ExplanationText, OfAStranger) {
    EXPECT_EQ(explanationText(stranger(), now),
              "message      192.0.2.1, from jo@example.org to me@example.com\n"
              "verdict      greylist (new), 5 min 0 s left\n"
              "endpoint     subscribers are not looked up\n"
              "sender       jo@example.org in half an hour: nothing\n"
              "reputation   nothing is known of this address (no threshold)\n"
              "exempt rules 2 tried, none matches\n"
              "exemption    none for 192.0.2.0/24 and the sender's domain; after 5 tuples have passed\n"
              "tuple        never seen, or forgotten\n");
}

TEST_F(ExplanationText, OfSomebodyWellKnown) {
    Json all = stranger();
    all["verdict"] = {{"action", "defer"}, {"reason", "sender-blocked"}, {"seconds_left", 60}, {"stage", "recipient"}};
    all["client"]["name"] = "mx.example.org";
    all["client"]["user"] = "jo";
    all["endpoint"] = {{"subscriber", "15555550100"},     {"exempt", false}, {"blacklisted", true},
                       {"blacklisted_until", now + 3600}, {"score", 7},      {"block_score", 20}};
    all["rate"]["block"] = {{"until", now + 60}, {"counter", "recipients"}};
    all["rate"]["totals"] = counters(3, 12, 1);
    all["rate"]["limits"] = counters(0, 10, 0);
    all["reputation"] = {{"known", true},
                         {"score", 85},
                         {"state", 0},
                         {"last_modified", now},
                         {"defer_score", 40},
                         {"reject_score", 80},
                         {"hours", Json::array({{{"start", now - 240},
                                                 {"score", 33},
                                                 {"messages", 30},
                                                 {"recipients", 40},
                                                 {"invalid_recipients", 4},
                                                 {"spam", 10},
                                                 {"infected", 1}}})}};
    all["rules"]["match"] = 20;
    all["exemption"]["until"] = now + 7200;
    all["tuple"] = {
        {"situation", "passes"}, {"first_seen", now - 600}, {"pass_time", now - 300}, {"expiry", now + 3600}};
    EXPECT_EQ(explanationText(all, now),
              "message      192.0.2.1 (mx.example.org), logged in as jo, from jo@example.org to me@example.com\n"
              "verdict      defer (sender-blocked), 1 min 0 s left\n"
              "endpoint     15555550100, score 7 (blacklisted from 20 on), on the blacklist, blacklisted until "
              "2026-11-21 11:04 (in 1 h)\n"
              "sender       jo@example.org in half an hour: 3 messages, 12 of 10 recipients, 1 spam; blocked for "
              "recipients until 2026-11-21 10:05 (in 1 min)\n"
              "reputation   score 85 (deferred from 40 on, rejected from 80 on)\n"
              "             2026-11-21 10:00  score 33, 30 messages, 10 spam, 1 infected, 4 of 40 recipients invalid  "
              "##############################\n"
              "exempt rules rule 20 matches\n"
              "exemption    192.0.2.0/24 and the sender's domain are exempt until 2026-11-21 12:04 (in 2 h)\n"
              "tuple        passes, first seen 2026-11-21 09:54 (10 min ago), may pass from 2026-11-21 09:59 (5 min "
              "ago) on, would live until 2026-11-21 11:04 (in 1 h)\n");
}

std::string verdictLine(Json const& all) {
    std::string const text = explanationText(all, now);
    std::size_t const begin = text.find("verdict");
    return text.substr(begin, text.find('\n', begin) - begin);
}

TEST_F(ExplanationText, WithoutARecipientTheVerdictSaysWhatItRestsOn) {
    Json all = stranger();
    all["recipient"] = nullptr;
    all["verdict"] = {{"action", "reject"}, {"reason", "bad-reputation"}, {"seconds_left", 0}, {"stage", "sender"}};
    EXPECT_EQ(verdictLine(all),
              "verdict      reject (bad-reputation), by what is held against client and sender; no recipient is given");
    all["verdict"]["stage"] = "connect";
    EXPECT_EQ(verdictLine(all),
              "verdict      reject (bad-reputation), by what is held against the client; no sender is given");
    all["verdict"] = {{"action", "defer"}, {"reason", "sender-blocked"}, {"seconds_left", 60}, {"stage", "sender"}};
    EXPECT_EQ(verdictLine(all), "verdict      defer (sender-blocked), 1 min 0 s left, by what is held against client "
                                "and sender; no recipient is given");
    all["verdict"] = {{"action", "pass"}, {"reason", "incomplete"}, {"seconds_left", 0}, {"stage", "sender"}};
    EXPECT_EQ(verdictLine(all),
              "verdict      none yet: nothing is held against client and sender; no recipient is given");
    all["verdict"]["stage"] = "connect";
    EXPECT_EQ(verdictLine(all), "verdict      none yet: nothing is held against the client; no sender is given");
    std::string const text = explanationText(all, now);
    EXPECT_EQ(text.find("tuple"), text.find("tuples have passed")) << text;
}

TEST_F(ExplanationText, BytesThatCouldDriveATerminalAreEscaped) {
    Json all = stranger();
    all["sender"] = "\x1b[31m@example.org";
    EXPECT_EQ(explanationText(all, now).find('\x1b'), std::string::npos);
}

} // namespace
} // namespace Vellum::Tools
