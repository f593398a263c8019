#include "tools/vellumctl/TopText.h"

#include "tests/tools/VellumctlFixture.h"
#include "tools/vellumctl/Screen.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>

namespace Vellum::Tools {
namespace {

constexpr double now = 1795255440; // 2026-11-21 10:04:00 UTC

Json sample(Json const& labels, double value) {
    return {{"labels", labels}, {"value", value}};
}

Json one(double value) {
    return {{"type", "gauge"}, {"samples", {sample(Json::object(), value)}}};
}

Json many(std::vector<Json> const& samples) {
    return {{"type", "counter"}, {"samples", samples}};
}

Json of(char const* label, char const* value) {
    return {{label, value}};
}

// A daemon that has run for a thousand seconds, and then for some more while something came `more` times.
Json metricsAfter(double more) {
    auto const decision = [](char const* front, char const* action, char const* reason, double count) {
        return sample({{"front", front}, {"action", action}, {"reason", reason}}, count);
    };
    Json const buckets = {{0.001, 50.0}, {0.002, 90 + more}, {0.004, 100 + more}};
    Json metrics;
    metrics["vellum_build_info"] = many({sample(of("version", "1.2.3"), 1)});
    metrics["vellum_start_time_seconds"] = one(now - 1000);
    metrics["vellum_database_up"] = one(1);
    metrics["vellum_database_daemon_up"] = one(0);
    metrics["vellum_messages_total"] =
        many({sample(of("front", "policy"), 500 + more), sample(of("front", "milter"), 0)});
    metrics["vellum_front_connections"] = many({sample(of("front", "policy"), 3), sample(of("front", "milter"), 0)});
    metrics["vellum_front_connections_accepted_total"] =
        many({sample(of("front", "policy"), 100), sample(of("front", "milter"), 0)});
    metrics["vellum_front_connections_refused_total"] =
        many({sample(of("front", "policy"), 7), sample(of("front", "milter"), 0)});
    metrics["vellum_front_failures_total"] = many({sample(of("front", "policy"), 0), sample(of("front", "milter"), 0)});
    metrics["vellum_decisions_total"] =
        many({decision("policy", "pass", "known", 400 + more), decision("policy", "greylist", "new", 100),
              decision("policy", "pass", "disabled", 0), decision("milter", "pass", "known", 100)});
    metrics["vellum_decision_duration_seconds"] = {
        {"type", "histogram"},
        {"samples", {{{"labels", Json::object()}, {"count", 100 + more}, {"sum", 0.1}, {"buckets", buckets}}}}};
    metrics["vellum_cache_entries"] = many({sample(of("cache", "tuples"), 750)});
    metrics["vellum_cache_capacity_entries"] = many({sample(of("cache", "tuples"), 1000)});
    metrics["vellum_cache_evictions_total"] = many({sample(of("cache", "tuples"), 20 + more)});
    metrics["vellum_backup_age_seconds"] =
        many({sample(of("family", "endpoint"), 1000), sample(of("family", "greylist"), 600)});
    metrics["vellum_backup_last_success_timestamp_seconds"] = many({sample(of("family", "greylist"), now - 600)});
    metrics["vellum_backup_last_duration_seconds"] = many({sample(of("family", "greylist"), 0.34)});
    metrics["vellum_backups_total"] = many({sample({{"family", "greylist"}, {"outcome", "success"}}, 2),
                                            sample({{"family", "greylist"}, {"outcome", "failure"}}, 1)});
    metrics["vellum_blocked_senders"] = one(5);
    metrics["vellum_blacklisted_endpoints"] =
        many({sample(of("by", "score"), 2), sample(of("by", "administrator"), 4)});
    metrics["vellum_exempt_endpoints"] = one(1);
    return {{"time", now}, {"metrics", metrics}};
}

class TopText : public testing::Test {
  protected:
    TopText() {
        ::setenv("TZ", "UTC", 1);
        ::tzset();
    }
};

TEST_F(TopText, TimesBeyondAllIntegersAreCut) {
    Json answer = metricsAfter(0);
    answer["time"] = 1e300;
    answer["metrics"]["vellum_start_time_seconds"] = one(-1e300);
    answer["metrics"]["vellum_backup_last_success_timestamp_seconds"] =
        many({sample(of("family", "greylist"), -1e300)});
    std::string const text = topText(answer, nullptr);
    EXPECT_NE(text.find("vellumd 1.2.3, up 23148148148 d 3 h, @1000000000000000; "), std::string::npos) << text;
    EXPECT_NE(text.find("11574074074 d 1 h ago"), std::string::npos) << text;
}

TEST_F(TopText, TheFirstPageShowsAveragesSinceTheStart) {
    EXPECT_EQ(topText(metricsAfter(0), nullptr),
              "vellumd 1.2.3, up 16 min 40 s, 2026-11-21 10:04; rates of all the time since the start\n"
              "database up, database daemon DOWN, unit unknown\n"
              "\n"
              "FRONT   MESSAGES/S  MESSAGES  OPEN  CONNECTIONS/S  REFUSED  FAILURES\n"
              "policy         0.5       500     3            0.1        7         0\n"
              "milter         0.0         0     0            0.0        0         0\n"
              "\n"
              "FRONT   DECISION  REASON  PER S  TOTAL\n"
              "policy  pass      known     0.4    400\n"
              "policy  greylist  new       0.1    100\n"
              "policy  all                 0.5    500\n"
              "milter  pass      known     0.1    100\n"
              "milter  all                 0.1    100\n"
              "\n"
              "LATENCY  p50 1.0 ms  p99 3.8 ms  p99.9 4.0 ms\n"
              "\n"
              "CACHE   ENTRIES  CAPACITY  FULL  EVICTIONS/S  EVICTIONS\n"
              "tuples      750      1000  75 %          0.0         20\n"
              "\n"
              "BACKUP         LAST GOOD      TOOK  GOOD  FAILED\n"
              "endpoint            none         -     -       -\n"
              "greylist  10 min 0 s ago  340.0 ms     2       1\n"
              "\n"
              "blocked senders 5, blacklisted subscribers 2 by score and 4 by an administrator, exempt 1\n");
}

TEST_F(TopText, ABackupThatWasRefusedStandsOut) {
    Json refused = metricsAfter(0);
    refused["metrics"]["vellum_backup_refused"] =
        many({sample(of("family", "endpoint"), 1), sample(of("family", "greylist"), 1)});
    std::string const text = topText(refused, nullptr);
    EXPECT_NE(text.find("BACKUP                        LAST GOOD      TOOK  GOOD  FAILED\n"
                        "endpoint            none, NEWER REFUSED         -     -       -\n"
                        "greylist  10 min 0 s ago, NEWER REFUSED  340.0 ms     2       1\n"),
              std::string::npos)
        << text;
}

TEST_F(TopText, LaterPagesShowTheRatesOfTheLastInterval) {
    Json const before = metricsAfter(0);
    Json later = metricsAfter(100);
    later["time"] = now + 2;
    std::string const text = topText(later, &before);
    EXPECT_EQ(text.find("vellumd 1.2.3, up 16 min 42 s, 2026-11-21 10:04; rates of the last 2.0 s\n"), 0U) << text;
    for (char const* line : {"\npolicy        50.0       600     3            0.0        7         0\n",
                             "\npolicy  pass      known    50.0    500\n", "\npolicy  greylist  new       0.0    100\n",
                             "\npolicy  all                50.0    600\n", "\nmilter  all                 0.0    100\n",
                             "\nLATENCY  p50 1.5 ms  p99 2.0 ms  p99.9 2.0 ms\n", // all hundred in the second bucket
                             "\ntuples      750      1000  75 %         50.0        120\n"}) {
        EXPECT_NE(text.find(line), std::string::npos) << line << text;
    }
}

TEST_F(TopText, AfterARestartOfTheDaemonAveragesAreShownAgain) {
    Json const before = metricsAfter(100);
    Json later = metricsAfter(0);
    later["time"] = now + 2;
    later["metrics"]["vellum_start_time_seconds"] = one(now + 1);
    EXPECT_NE(topText(later, &before).find("up 1 s, 2026-11-21 10:04; rates of all the time since the start\n"),
              std::string::npos);
}

TEST_F(TopText, WhatADaemonDoesNotTellIsLeftOut) {
    EXPECT_EQ(topText({{"time", now}, {"metrics", Json::object()}}, nullptr),
              "vellumd -, up 0 s, 2026-11-21 10:04; rates of all the time since the start\n"
              "database unknown, database daemon unknown, unit unknown\n\n"
              "FRONT  MESSAGES/S  MESSAGES  OPEN  CONNECTIONS/S  REFUSED  FAILURES\n\n"
              "FRONT  DECISION  REASON  PER S  TOTAL\n\n"
              "LATENCY  -\n\n"
              "CACHE  ENTRIES  CAPACITY  FULL  EVICTIONS/S  EVICTIONS\n\n"
              "BACKUP  LAST GOOD  TOOK  GOOD  FAILED\n\n"
              "blocked senders -, blacklisted subscribers - by score and - by an administrator, exempt -\n");
    EXPECT_THROW(topText({{"time", "noon"}, {"metrics", Json::object()}}, nullptr), Json::exception);
}

TEST_F(TopText, TextsOfTheDaemonCannotDriveATerminal) {
    Json forged = metricsAfter(0);
    forged["metrics"]["vellum_build_info"] = many({sample(of("version", "\x1b[2J\n"), 1)});
    EXPECT_EQ(topText(forged, nullptr).find("vellumd \\x1b[2J\\n, up"), 0U);
}

TEST(Quantile, LiesWhereItsShareOfTheBucketIs) {
    Json const buckets = {{1.0, 10.0}, {2.0, 10.0}, {4.0, 30.0}};
    EXPECT_DOUBLE_EQ(quantile(buckets, 40, 0.125), 0.5);
    EXPECT_DOUBLE_EQ(quantile(buckets, 40, 0.25), 1.0);
    EXPECT_DOUBLE_EQ(quantile(buckets, 40, 0.5), 3.0) << "the empty bucket is passed over";
    EXPECT_DOUBLE_EQ(quantile(buckets, 40, 0.99), 4.0) << "beyond all buckets: the last upper end";
    EXPECT_LT(quantile(buckets, 0, 0.5), 0);
}

TEST(ShortDuration, HasTheUnitThatFits) {
    EXPECT_EQ(shortDuration(0.0000012), "1.2 us");
    EXPECT_EQ(shortDuration(0.000999), "999.0 us");
    EXPECT_EQ(shortDuration(0.001), "1.0 ms");
    EXPECT_EQ(shortDuration(1), "1.0 s");
}

TEST(Screen, APageIsCutToTheTerminal) {
    std::string const text = "one line\ntw\xc3\xb6 lines\n\nfour\n";
    EXPECT_EQ(pageFor(text, 3, 3), "\x1b[Hone\x1b[K\r\ntw\xc3\xb6\x1b[K\r\n\x1b[K\x1b[J");
    EXPECT_EQ(pageFor(text, 10, 80), "\x1b[Hone line\x1b[K\r\ntw\xc3\xb6 lines\x1b[K\r\n\x1b[K\r\nfour\x1b[K\x1b[J");
    EXPECT_EQ(pageFor(text, 1, 1), "\x1b[Ho\x1b[K\x1b[J");
    EXPECT_EQ(pageFor("", 1, 1), "\x1b[H\x1b[J");
}

class VellumctlTop : public VellumctlFixture {};

TEST_F(VellumctlTop, OncePrintsOnePageWithoutATerminal) {
    answerJson(IPC::PduType::adminMetrics, metricsAfter(0));
    ChildResult const result = run({"top", "--once"});
    EXPECT_EQ(result.exitCode, 0) << result.err;
    EXPECT_EQ(result.out, topText(metricsAfter(0), nullptr));
    EXPECT_EQ(Json::parse(run({"top", "--json"}).out), metricsAfter(0));
}

TEST_F(VellumctlTop, WithoutATerminalItSaysSo) {
    answerJson(IPC::PduType::adminMetrics, metricsAfter(0));
    ChildResult const result = run({"top"});
    EXPECT_EQ(result.exitCode, 2);
    EXPECT_EQ(result.err, "vellumctl top: there is no terminal: --once prints one page without\n");
}

TEST_F(VellumctlTop, WhatIsWrongIsToldLikeElsewhere) {
    EXPECT_EQ(run({"top", "--once"}).exitCode, 3) << "a daemon that does not know the request";
    answerJson(IPC::PduType::adminMetrics, {{"error", "no\nmemory"}});
    ChildResult const refused = run({"top", "--once"});
    EXPECT_EQ(refused.exitCode, 1);
    EXPECT_EQ(refused.err, "vellumctl top: no\\nmemory\n");
    answerJson(IPC::PduType::adminMetrics, {{"time", now}});
    EXPECT_EQ(run({"top", "--once"}).exitCode, 4);
    for (char const* interval : {"0", "3601", "x", "-1", "0.5"}) {
        EXPECT_EQ(run({"top", "--once", "--interval", interval}).exitCode, 2) << interval;
    }
}

} // namespace
} // namespace Vellum::Tools
