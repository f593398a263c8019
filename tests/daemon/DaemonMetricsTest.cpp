#include "daemon/DaemonMetrics.h"

#include "daemon/MetricsHandler.h"
#include "foundation/OperationTally.h"
#include "foundation/ipc/Endpoint.h"
#include "foundation/ipc/SocketIPC.h"
#include "greylist/TupleCache.h"
#include "mmsreputation/RefCache.h"
#include "tests/daemon/FamiliesFixture.h"
#include "tests/support/GreylistConfiguration.h"
#include "tests/support/GreylistIdentities.h"

#include <gtest/gtest.h>
#include <prometheus/text_serializer.h>

#include <algorithm>
#include <sstream>

namespace Vellum::Daemon {
namespace {

constexpr long now = 1795255440; // 2026-11-21 10:04:00 UTC

class DaemonMetricsTest : public testing::Test, protected FamiliesFixture {
  protected:
    DaemonMetricsTest() {
        (**GreyList::TupleCache::instance()).clear();
        facts.startedAt = now - 600;
        facts.fronts = {
            {.name = "policy", .counters = &policy, .connections = 3, .accepted = 9, .refused = 2, .failures = 1},
            {.name = "milter", .counters = &milter}};
    }

    // The lines of one metric as a scraper gets them, without the help.
    std::string lines(std::string const& metric) const {
        std::istringstream all(prometheus::TextSerializer().Serialize(metrics->Collect()));
        std::string found;
        for (std::string line; std::getline(all, line);) {
            bool const sample = line.starts_with(metric + "{") || line.starts_with(metric + " ");
            if (sample || line.starts_with("# TYPE " + metric + " ")) {
                found += line + "\n";
            }
        }
        return found;
    }
    void decided(DecisionCounters& counters, Verdict::Action action, Verdict::Reason reason) {
        Verdict verdict;
        verdict.action = action;
        verdict.reason = reason;
        counters.count(verdict);
    }

    GreyList::InstalledConfiguration greylist{100};
    DecisionCounters policy, milter;
    MetricFacts facts;
    std::shared_ptr<DaemonMetrics> metrics =
        std::make_shared<DaemonMetrics>([this] { return facts; }, [] { return now; });
};

TEST_F(DaemonMetricsTest, DecisionsAreToldByFrontActionAndReasonFromTheFirstScrapeOn) {
    decided(policy, Verdict::Action::defer, Verdict::Reason::fresh);
    decided(policy, Verdict::Action::defer, Verdict::Reason::fresh);
    decided(milter, Verdict::Action::reject, Verdict::Reason::badReputation);
    std::string const text = lines("vellum_decisions_total");
    EXPECT_EQ(text.find("# TYPE vellum_decisions_total counter\n"), 0U);
    for (char const* line : {"{front=\"policy\",action=\"greylist\",reason=\"new\"} 2\n",
                             "{front=\"policy\",action=\"pass\",reason=\"known\"} 0\n",
                             "{front=\"milter\",action=\"greylist\",reason=\"new\"} 0\n",
                             "{front=\"milter\",action=\"reject\",reason=\"bad-reputation\"} 1\n"}) {
        EXPECT_NE(text.find("vellum_decisions_total" + std::string(line)), std::string::npos) << line << text;
    }
    EXPECT_EQ(text.find("{front=\"policy\",action=\"reject\",reason=\"bad-reputation\"}"), std::string::npos)
        << "what never happened and is not the mildest is left out";
}

TEST_F(DaemonMetricsTest, FrontsTellTheirConnections) {
    policy.countMessage();
    facts.policyRequests = 17;
    facts.policyProtocolErrors = 4;
    EXPECT_EQ(lines("vellum_messages_total"), "# TYPE vellum_messages_total counter\n"
                                              "vellum_messages_total{front=\"policy\"} 1\n"
                                              "vellum_messages_total{front=\"milter\"} 0\n");
    EXPECT_EQ(lines("vellum_front_connections"), "# TYPE vellum_front_connections gauge\n"
                                                 "vellum_front_connections{front=\"policy\"} 3\n"
                                                 "vellum_front_connections{front=\"milter\"} 0\n");
    EXPECT_EQ(lines("vellum_front_connections_accepted_total"),
              "# TYPE vellum_front_connections_accepted_total counter\n"
              "vellum_front_connections_accepted_total{front=\"policy\"} 9\n"
              "vellum_front_connections_accepted_total{front=\"milter\"} 0\n");
    EXPECT_EQ(lines("vellum_front_connections_refused_total"),
              "# TYPE vellum_front_connections_refused_total counter\n"
              "vellum_front_connections_refused_total{front=\"policy\"} 2\n"
              "vellum_front_connections_refused_total{front=\"milter\"} 0\n");
    EXPECT_EQ(lines("vellum_front_failures_total"), "# TYPE vellum_front_failures_total counter\n"
                                                    "vellum_front_failures_total{front=\"policy\"} 1\n"
                                                    "vellum_front_failures_total{front=\"milter\"} 0\n");
    EXPECT_EQ(lines("vellum_policy_requests_total"), "# TYPE vellum_policy_requests_total counter\n"
                                                     "vellum_policy_requests_total 17\n");
    EXPECT_EQ(lines("vellum_policy_protocol_errors_total"), "# TYPE vellum_policy_protocol_errors_total counter\n"
                                                            "vellum_policy_protocol_errors_total 4\n");
}

TEST_F(DaemonMetricsTest, DurationsOfAllFrontsAreOneHistogramInSeconds) {
    auto const decide = [] {
        return Verdict{};
    };
    policy.timed(decide);
    milter.timed(decide);
    EXPECT_EQ(lines("vellum_decision_duration_seconds_count"), "vellum_decision_duration_seconds_count 2\n");
    std::string const buckets = lines("vellum_decision_duration_seconds_bucket");
    EXPECT_EQ(std::count(buckets.begin(), buckets.end(), '\n'), long{DurationBuckets::count});
    EXPECT_NE(buckets.find("{le=\"1.28e-07\"} "), std::string::npos) << buckets;
    EXPECT_NE(buckets.find("{le=\"1.073741824\"} 2\n"), std::string::npos) << buckets;
    EXPECT_NE(buckets.find("{le=\"+Inf\"} 2\n"), std::string::npos) << buckets;
}

TEST_F(DaemonMetricsTest, CachesTellTheirSizeAndWhatHadToGo) {
    auto& tuples = **GreyList::TupleCache::instance();
    std::uint64_t const before = tuples.evictions();
    for (unsigned int i = 0; i < tuples.maxSize() + 3; ++i) {
        tuples.add(GreyList::tuple(i), GreyList::Status(0, 0, 0));
    }
    std::string const size = std::to_string(tuples.maxSize());
    EXPECT_NE(lines("vellum_cache_entries").find("{cache=\"tuples\"} " + size + "\n"), std::string::npos);
    EXPECT_NE(lines("vellum_cache_capacity_entries").find("{cache=\"tuples\"} " + size + "\n"), std::string::npos);
    EXPECT_NE(lines("vellum_cache_evictions_total").find("{cache=\"tuples\"} " + std::to_string(before + 3) + "\n"),
              std::string::npos);
    for (char const* cache : {"exemptions", "reputation", "rate_control", "endpoints"}) {
        EXPECT_NE(lines("vellum_cache_entries").find("{cache=\"" + std::string(cache) + "\"} 0\n"), std::string::npos)
            << cache;
    }
}

TEST_F(DaemonMetricsTest, FamiliesTellWhoIsBlockedAndListed) {
    learn("192.0.2.1", "15555550100");
    auto const cache = MMSReputation::RefCache::instance(nullptr, MMSReputation::Select::everything);
    cache->entry(MSISDN("15555550100"), 0, true)->blacklistExpiry(now);
    cache->entry(MSISDN("15555550101"), 0, true)->blacklistExpiry(now - 1);
    cache->entry(MSISDN("15555550102"), 0, true);
    cache->blacklist(MSISDN("15555550103"));
    cache->exempt(MSISDN("15555550104"));
    cache->exempt(MSISDN("15555550105"));
    facts.counts.countEndpoints(now);
    facts.counts.blockedSenders = 7;
    EXPECT_EQ(lines("vellum_blacklisted_endpoints"), "# TYPE vellum_blacklisted_endpoints gauge\n"
                                                     "vellum_blacklisted_endpoints{by=\"score\"} 1\n"
                                                     "vellum_blacklisted_endpoints{by=\"administrator\"} 1\n");
    EXPECT_EQ(lines("vellum_exempt_endpoints"), "# TYPE vellum_exempt_endpoints gauge\nvellum_exempt_endpoints 2\n");
    EXPECT_EQ(lines("vellum_blocked_senders"), "# TYPE vellum_blocked_senders gauge\nvellum_blocked_senders 7\n");
}

TEST_F(DaemonMetricsTest, TheAgeOfABackupCountsFromTheLastScriptThatWasRunButNotFromBeforeTheStart) {
    facts.scripts[4] = {.ran = {{17, now - 601}}, .refused = {}}; // of the process before
    facts.scripts[5] = {.ran = {{18, now - 60}}, .refused = {}};
    EXPECT_EQ(lines("vellum_backup_age_seconds"), "# TYPE vellum_backup_age_seconds gauge\n"
                                                  "vellum_backup_age_seconds{family=\"greylist\"} 600\n"
                                                  "vellum_backup_age_seconds{family=\"reputation\"} 60\n"
                                                  "vellum_backup_age_seconds{family=\"endpoint\"} 600\n");
    EXPECT_EQ(lines("vellum_backup_last_success_timestamp_seconds"),
              "# TYPE vellum_backup_last_success_timestamp_seconds gauge\n"
              "vellum_backup_last_success_timestamp_seconds{family=\"greylist\"} 1795254839\n"
              "vellum_backup_last_success_timestamp_seconds{family=\"reputation\"} 1795255380\n");
}

// Neither one that waits for the database, nor one that the database will never take.
TEST_F(DaemonMetricsTest, AScriptThatWasOnlyAcceptedIsNoBackup) {
    OperationTally::instance().note(Operation::backup, "reputation", true, std::chrono::milliseconds(1500), now - 60);
    facts.scripts[5] = {.ran = {{17, now - 590}}, .refused = {{18, now - 59, "no such column"}}};
    EXPECT_NE(lines("vellum_backup_age_seconds").find("{family=\"reputation\"} 590\n"), std::string::npos);
    EXPECT_EQ(lines("vellum_backup_refused"), "# TYPE vellum_backup_refused gauge\n"
                                              "vellum_backup_refused{family=\"greylist\"} 0\n"
                                              "vellum_backup_refused{family=\"reputation\"} 1\n"
                                              "vellum_backup_refused{family=\"endpoint\"} 0\n");
    EXPECT_NE(lines("vellum_backup_last_duration_seconds").find("{family=\"reputation\"} 1.5\n"), std::string::npos);
    EXPECT_NE(lines("vellum_backups_total").find("{family=\"endpoint\",outcome=\"success\"} 0\n"), std::string::npos);
}

TEST_F(DaemonMetricsTest, WhatWasNotTriedYetIsNotTold) {
    facts.active.reset();
    EXPECT_EQ(lines("vellum_database_up"), "");
    EXPECT_EQ(lines("vellum_database_daemon_up"), "");
    EXPECT_EQ(lines("vellum_high_availability_active"), "");
    facts.database = false;
    facts.databaseDaemon = true;
    facts.active = false;
    EXPECT_EQ(lines("vellum_database_up"), "# TYPE vellum_database_up gauge\nvellum_database_up 0\n");
    EXPECT_EQ(lines("vellum_database_daemon_up"),
              "# TYPE vellum_database_daemon_up gauge\nvellum_database_daemon_up 1\n");
    EXPECT_EQ(lines("vellum_high_availability_active"),
              "# TYPE vellum_high_availability_active gauge\nvellum_high_availability_active 0\n");
}

// The request for them, and how requests are counted by then.
TEST_F(DaemonMetricsTest, TheSameIsAnsweredOnPort29001AsJson) {
    IPC::Dispatcher dispatcher(IPC::stateDaemonPort);
    addMetricsHandler(metrics, dispatcher);
    IPC::DispatcherOptions options;
    options.port = 0;
    dispatcher.start(options);
    IPC::Endpoint::map(IPC::stateDaemonPort, "127.0.0.1", dispatcher.boundPort());
    policy.timed([] { return Verdict{}; });
    std::uint64_t const before = OperationTally::instance().all(Operation::request)["1447821319"].succeeded;
    Json answer;
    for (int i = 0; i < 2; ++i) {
        IPC::SocketIPC client;
        client.connect(IPC::stateDaemonPort);
        client << IPC::Pdu(IPC::PduType::adminMetrics, Buffer("", 0, true));
        IPC::Pdu unit(IPC::PduType::receiveBuffer, 1024);
        client >> unit;
        ASSERT_TRUE(unit.is(IPC::PduType::adminReply));
        answer = Json::parse(unit.data().view());
        client.close();
    }
    dispatcher.stop();
    IPC::Endpoint::unmap(IPC::stateDaemonPort);
    EXPECT_GT(answer.at("time").get<double>(), 1.7e9);
    Json const& told = answer.at("metrics");
    EXPECT_EQ(told.at("vellum_start_time_seconds"),
              Json({{"type", "gauge"}, {"samples", {{{"labels", Json::object()}, {"value", double(now - 600)}}}}}));
    Json const& histogram = told.at("vellum_decision_duration_seconds");
    EXPECT_EQ(histogram.at("type"), "histogram");
    EXPECT_EQ(histogram.at("samples").at(0).at("count"), 1);
    EXPECT_EQ(histogram.at("samples").at(0).at("buckets").size(), DurationBuckets::count - 1);
    EXPECT_EQ(histogram.at("samples").at(0).at("buckets").at(0).at(0), 1.28e-07);
    Json const& requests = told.at("vellum_requests_total").at("samples");
    auto const own = std::find_if(requests.begin(), requests.end(), [](Json const& sample) {
        return sample.at("labels") == Json({{"request", "metrics"}, {"outcome", "success"}});
    });
    ASSERT_NE(own, requests.end()) << requests;
    EXPECT_EQ(own->at("value"), double(before + 1)) << "the one before this one";
}

} // namespace
} // namespace Vellum::Daemon
