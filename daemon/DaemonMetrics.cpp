#include "daemon/DaemonMetrics.h"

#include "daemon/ScriptWatch.h"
#include "foundation/OperationTally.h"
#include "foundation/Version.h"
#include "foundation/ipc/PduType.h"
#include "greylist/DynamicExemptCache.h"
#include "greylist/TupleCache.h"
#include "mmsreputation/RefCache.h"
#include "reputation/Cache.h"
#include "senderratecontrol/SenderRateControlCache.h"

#include <algorithm>
#include <limits>
#include <map>

namespace Vellum::Daemon {
namespace {

using prometheus::ClientMetric;
using prometheus::MetricFamily;
using prometheus::MetricType;
using Labels = std::vector<ClientMetric::Label>;

double seconds(std::chrono::nanoseconds time) {
    return std::chrono::duration<double>(time).count();
}

// One metric with all its samples.
class Family {
  public:
    Family(MetricType type, char const* name, char const* help) {
        m_family.type = type;
        m_family.name = name;
        m_family.help = help;
    }
    template <class Number>
    void add(Number value, Labels labels = {}) {
        ClientMetric sample;
        sample.label = std::move(labels);
        (m_family.type == MetricType::Counter ? sample.counter.value : sample.gauge.value) = static_cast<double>(value);
        m_family.metric.push_back(std::move(sample));
    }
    void add(ClientMetric::Histogram histogram) {
        ClientMetric sample;
        sample.histogram = std::move(histogram);
        m_family.metric.push_back(std::move(sample));
    }
    // Only once there is something to tell.
    void into(std::vector<MetricFamily>& all) {
        if (!m_family.metric.empty()) {
            all.push_back(std::move(m_family));
        }
    }

  private:
    MetricFamily m_family;
};

Family counter(char const* name, char const* help) {
    return {MetricType::Counter, name, help};
}

Family gauge(char const* name, char const* help) {
    return {MetricType::Gauge, name, help};
}

void addDecisions(FrontFigures const& front, Family& decisions) {
    for (unsigned int i = 0; i < reasonCount; ++i) {
        auto const reason = static_cast<Verdict::Reason>(i);
        for (unsigned int j = 0; j < actionCount; ++j) {
            auto const action = static_cast<Verdict::Action>(j);
            std::uint64_t const count = front.counters->of(action, reason);
            if (count != 0 || action == actionOf(reason)) { // from the start on, so that the first one is an increase
                decisions.add(count, {{"front", front.name},
                                      {"action", std::string(actionText(action, reason))},
                                      {"reason", std::string(reasonText(reason))}});
            }
        }
    }
}

ClientMetric::Histogram histogramOf(DecisionDurations const& durations) {
    constexpr double nanoseconds = 1e9; // divided by, which rounds to the shortest number of a bucket's end
    ClientMetric::Histogram histogram;
    for (std::size_t i = 0; i < durations.buckets.size(); ++i) {
        histogram.sample_count += durations.buckets[i];
        if (i + 1 < durations.buckets.size()) {
            histogram.bucket.push_back(
                {histogram.sample_count, static_cast<double>(DurationBuckets::upperNanoseconds(i)) / nanoseconds});
        }
    }
    histogram.bucket.push_back({histogram.sample_count, std::numeric_limits<double>::infinity()});
    histogram.sample_sum = static_cast<double>(durations.nanoseconds) / nanoseconds;
    return histogram;
}

void addFronts(std::vector<MetricFamily>& all, MetricFacts const& facts) {
    Family decisions = counter("vellum_decisions_total", "Decisions on recipients, and refusals before or after them");
    Family messages = counter("vellum_messages_total", "Messages that a front was asked about");
    Family open = gauge("vellum_front_connections", "Connections of mail servers that are open");
    Family accepted = counter("vellum_front_connections_accepted_total", "Connections of mail servers");
    Family refused = counter("vellum_front_connections_refused_total",
                             "Connections of mail servers that were one too many: closed, or let through unseen");
    Family failures = counter("vellum_front_failures_total", "Questions let through because the decision failed");
    Family durations(MetricType::Histogram, "vellum_decision_duration_seconds",
                     "How long decisions took, of one in eight");
    DecisionDurations sum;
    for (FrontFigures const& front : facts.fronts) {
        Labels const label{{"front", front.name}};
        addDecisions(front, decisions);
        messages.add(front.counters->messages(), label);
        open.add(front.connections, label);
        accepted.add(front.accepted, label);
        refused.add(front.refused, label);
        failures.add(front.failures, label);
        sum += front.counters->durations();
    }
    durations.add(histogramOf(sum));
    for (Family* family : {&decisions, &durations, &messages, &open, &accepted, &refused, &failures}) {
        family->into(all);
    }
    Family requests = counter("vellum_policy_requests_total", "Requests of the policy protocol");
    requests.add(facts.policyRequests);
    requests.into(all);
    Family errors = counter("vellum_policy_protocol_errors_total", "Policy connections closed because of what came");
    errors.add(facts.policyProtocolErrors);
    errors.into(all);
}

struct CacheFamilies {
    Family entries = gauge("vellum_cache_entries", "Entries in a cache");
    Family capacity = gauge("vellum_cache_capacity_entries", "Entries that a cache has room for");
    Family evictions = counter("vellum_cache_evictions_total", "Entries that had to go because a cache was full");

    template <class Cache>
    void add(char const* name, Cache const& cache) {
        Labels const label{{"cache", name}};
        entries.add(cache.recentSize(), label);
        capacity.add(cache.maxSize(), label);
        evictions.add(cache.evictions(), label);
    }
};

void addCaches(std::vector<MetricFamily>& all) {
    CacheFamilies families;
    families.add("tuples", **GreyList::TupleCache::instance());
    families.add("exemptions", **GreyList::DynamicExemptCache::instance());
    families.add("reputation", **Reputation::RefCache::instance());
    families.add("rate_control", **SenderRateControl::RefCache::instance());
    auto const endpoints = MMSReputation::RefCache::instance(nullptr, MMSReputation::Select::everything);
    if (!endpoints.isNull()) {
        families.add("endpoints", *endpoints);
    }
    for (Family* family : {&families.entries, &families.capacity, &families.evictions}) {
        family->into(all);
    }
}

void addCounts(std::vector<MetricFamily>& all, FamilyCounts const& counts) {
    Family blocked = gauge("vellum_blocked_senders", "Senders that rate control has blocked, as of the last minute");
    blocked.add(counts.blockedSenders);
    blocked.into(all);
    Family blacklisted =
        gauge("vellum_blacklisted_endpoints", "Subscribers on the blacklist, by whom, as of the last minute");
    blacklisted.add(counts.autoBlacklistedEndpoints, {{"by", "score"}});
    blacklisted.add(counts.blacklistedEndpoints, {{"by", "administrator"}});
    blacklisted.into(all);
    Family exempt = gauge("vellum_exempt_endpoints", "Subscribers on the exempt list, as of the last minute");
    exempt.add(counts.exemptEndpoints);
    exempt.into(all);
}

using Totals = std::map<std::string, OperationTotals>;

// The names of one kind of operation's metrics, and of its label.
struct OperationNames {
    char const* label;
    char const* total;
    char const* totalHelp;
    char const* time;
    char const* timeHelp;
    char const* lastTime; // empty: not told
    char const* lastTimeHelp;
};

constexpr OperationNames backupNames{"family",
                                     "vellum_backups_total",
                                     "Backups of a family, by whether the database daemon has accepted the script",
                                     "vellum_backup_duration_seconds_total",
                                     "Time that all backups took",
                                     "vellum_backup_last_duration_seconds",
                                     "Time that the last backup took"};
constexpr OperationNames loadNames{"cache",
                                   "vellum_loads_total",
                                   "Loads of a cache from its tables",
                                   "vellum_load_duration_seconds_total",
                                   "Time that all loads took",
                                   "vellum_load_last_duration_seconds",
                                   "Time that the last load took"};
constexpr OperationNames requestNames{"request",
                                      "vellum_requests_total",
                                      "Requests of tools, listings among them",
                                      "vellum_request_duration_seconds_total",
                                      "Time that all requests took",
                                      "",
                                      ""};

void addOperations(std::vector<MetricFamily>& all, OperationNames const& names, Totals const& operations) {
    Family total = counter(names.total, names.totalHelp);
    Family time = counter(names.time, names.timeHelp);
    Family last = gauge(names.lastTime, names.lastTimeHelp);
    for (auto const& [of, totals] : operations) {
        ClientMetric::Label const label{names.label, of};
        total.add(totals.succeeded, {label, {"outcome", "success"}});
        total.add(totals.failed, {label, {"outcome", "failure"}});
        time.add(seconds(totals.time), {label});
        if (*names.lastTime != '\0' && totals.succeeded + totals.failed > 0) {
            last.add(seconds(totals.lastTime), {label});
        }
    }
    for (Family* family : {&total, &time, &last}) {
        family->into(all);
    }
}

// A script that was accepted may wait or be refused yet: only one that was run is a backup.
void addBackups(std::vector<MetricFamily>& all, MetricFacts const& facts, long now) {
    Totals backups = OperationTally::instance().all(Operation::backup);
    Family success = gauge("vellum_backup_last_success_timestamp_seconds",
                           "When the last backup was accepted that is in the tables, as of the last minute");
    Family age = gauge("vellum_backup_age_seconds",
                       "Time since then, or since the daemon's start where that is less, as of the last minute");
    Family refused = gauge("vellum_backup_refused",
                           "Whether the last backup was accepted, but can never be run, as of the last minute");
    for (ScriptFamily const& family : scriptFamilies) {
        backups[family.name]; // told from the start on
        Labels const label{{"family", family.name}};
        DatabaseDaemon::ScriptOutcome const outcome = outcomeOf(facts.scripts, family.code);
        if (outcome.ran) {
            success.add(outcome.ran->acceptedAt, label);
        }
        age.add(now - std::max(facts.startedAt, outcome.ran ? outcome.ran->acceptedAt : 0), label);
        refused.add(outcome.refused ? 1 : 0, label);
    }
    addOperations(all, backupNames, backups);
    for (Family* each : {&success, &age, &refused}) {
        each->into(all);
    }
}

std::string requestName(std::string const& type) {
    using IPC::PduType;
    static std::map<PduType, char const*> const names{
        {PduType::listTuples, "list_tuples"},
        {PduType::listExemptions, "list_exemptions"},
        {PduType::reloadGreylist, "reload_greylist"},
        {PduType::listReputations, "list_reputations"},
        {PduType::reloadReputations, "reload_reputations"},
        {PduType::setReputationState, "set_reputation_state"},
        {PduType::listReputationRecords, "list_reputation_records"},
        {PduType::reloadEndpoints, "reload_endpoints"},
        {PduType::listEndpoints, "list_endpoints"},
        {PduType::rebuildEndpointScores, "rebuild_endpoint_scores"},
        {PduType::removeEndpoint, "remove_endpoint"},
        {PduType::listSenderRates, "list_sender_rates"},
        {PduType::listSenderRateRecords, "list_sender_rate_records"},
        {PduType::adminStatus, "status"},
        {PduType::adminBackup, "backup"},
        {PduType::adminRestore, "restore"},
        {PduType::adminAcceptEmpty, "accept_empty"},
        {PduType::adminExplain, "explain"},
        {PduType::adminRelease, "release"},
        {PduType::adminResetRate, "reset_rate"},
        {PduType::adminMetrics, "metrics"},
    };
    auto const found = names.find(static_cast<PduType>(std::stoul(type)));
    return found == names.end() ? type : found->second;
}

void addRequests(std::vector<MetricFamily>& all) {
    Totals named;
    for (auto const& [type, totals] : OperationTally::instance().all(Operation::request)) {
        named.emplace(requestName(type), totals);
    }
    addOperations(all, requestNames, named);
}

void addDaemon(std::vector<MetricFamily>& all, MetricFacts const& facts) {
    Family build = gauge("vellum_build_info", "Always 1; the version is a label");
    build.add(1, {{"version", version}});
    build.into(all);
    Family start = gauge("vellum_start_time_seconds", "When the daemon was started");
    start.add(facts.startedAt);
    start.into(all);
    auto const addState = [&all](char const* name, char const* help, std::optional<bool> state) {
        Family family = gauge(name, help);
        if (state) {
            family.add(*state ? 1 : 0);
        }
        family.into(all);
    };
    addState("vellum_database_up", "Whether the database answers, as of the last minute", facts.database);
    addState("vellum_database_daemon_up", "Whether the database daemon answers, as of the last minute",
             facts.databaseDaemon);
    addState("vellum_high_availability_active", "Whether this unit of a pair is the active one, as last asked",
             facts.active);
}

Json sampleJson(ClientMetric const& sample, MetricType type) {
    Json labels = Json::object();
    for (ClientMetric::Label const& label : sample.label) {
        labels[label.name] = label.value;
    }
    Json json = {{"labels", labels}};
    if (type == MetricType::Histogram) {
        json["count"] = sample.histogram.sample_count;
        json["sum"] = sample.histogram.sample_sum;
        json["buckets"] = Json::array();
        for (ClientMetric::Bucket const& bucket : sample.histogram.bucket) {
            if (bucket.upper_bound != std::numeric_limits<double>::infinity()) { // JSON has no such number
                json["buckets"].push_back({bucket.upper_bound, bucket.cumulative_count});
            }
        }
    } else {
        json["value"] = type == MetricType::Counter ? sample.counter.value : sample.gauge.value;
    }
    return json;
}

char const* typeText(MetricType type) {
    return type == MetricType::Counter ? "counter" : type == MetricType::Histogram ? "histogram" : "gauge";
}

} // namespace

std::vector<MetricFamily> DaemonMetrics::Collect() const {
    MetricFacts const facts = m_facts();
    std::vector<MetricFamily> all;
    addDaemon(all, facts);
    addFronts(all, facts);
    addCaches(all);
    addCounts(all, facts.counts);
    addBackups(all, facts, m_clock());
    addOperations(all, loadNames, OperationTally::instance().all(Operation::load));
    addRequests(all);
    return all;
}

Json asJson(std::vector<MetricFamily> const& families) {
    Json json = Json::object();
    for (MetricFamily const& family : families) {
        Json samples = Json::array();
        for (ClientMetric const& sample : family.metric) {
            samples.push_back(sampleJson(sample, family.type));
        }
        json[family.name] = {{"type", typeText(family.type)}, {"samples", samples}};
    }
    return json;
}

} // namespace Vellum::Daemon
