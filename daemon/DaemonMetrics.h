// Everything that is told of the daemon to those who watch it: docs/metrics.md lists it.
//
// Nothing is kept here: each collection reads the counters and reports that are there already. Of the caches it reads
// sizes without their locks, so it neither holds a decision up nor waits for a listing.
#pragma once

#include "daemon/AdminJson.h"
#include "daemon/DecisionCounters.h"
#include "daemon/FamilyCounts.h"
#include "foundation/database/ScriptOutcomes.h"

#include <prometheus/collectable.h>
#include <prometheus/metric_family.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace Vellum::Daemon {

// A front, as it is now.
struct FrontFigures {
    std::string name;                           // "policy", "milter"
    DecisionCounters const* counters = nullptr; // borrowed
    std::uint64_t connections = 0;              // open now
    std::uint64_t accepted = 0;
    std::uint64_t refused = 0;  // too many connections
    std::uint64_t failures = 0; // questions that were answered "go on" because the decision failed
};

// What only the running daemon knows; caches and operations of the library are asked themselves.
struct MetricFacts {
    long startedAt = 0; // seconds since the epoch
    std::vector<FrontFigures> fronts;
    std::uint64_t policyRequests = 0;
    std::uint64_t policyProtocolErrors = 0;
    FamilyCounts counts;                      // of the last minute
    std::optional<bool> database;             // reachable, as last tried; nothing: not tried yet
    std::optional<bool> databaseDaemon;       // likewise
    DatabaseDaemon::ScriptOutcomes scripts{}; // what became of the backups' scripts, as last told
    std::optional<bool> active = true;        // of a pair; nothing: not asked yet
};

// Thread-safe if `facts` is.
class DaemonMetrics : public prometheus::Collectable {
  public:
    using Facts = std::function<MetricFacts()>;
    using Clock = std::function<long()>; // seconds since the epoch

    DaemonMetrics(Facts facts, Clock clock) : m_facts(std::move(facts)), m_clock(std::move(clock)) {}

    std::vector<prometheus::MetricFamily> Collect() const override;

  private:
    Facts m_facts;
    Clock m_clock;
};

// {NAME: {"type": "counter", "gauge" or "histogram", "samples": [{"labels": {...}, "value": NUMBER}]}}; a sample of a
// histogram has "count", "sum" and "buckets": [[UPPER END, how many are not above it], ...] in place of "value".
Json asJson(std::vector<prometheus::MetricFamily> const& families);

} // namespace Vellum::Daemon
