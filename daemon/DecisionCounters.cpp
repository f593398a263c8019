#include "daemon/DecisionCounters.h"

namespace Vellum::Daemon {

DecisionDurations& DecisionDurations::operator+=(DecisionDurations const& more) {
    for (std::size_t i = 0; i < buckets.size(); ++i) {
        buckets[i] += more.buckets[i];
    }
    nanoseconds += more.nanoseconds;
    return *this;
}

std::uint64_t DecisionCounters::of(Verdict::Action action, Verdict::Reason reason) const {
    std::uint64_t sum = 0;
    for (Shard const& shard : *m_shards) {
        sum += shard.decisions[index(action, reason)].load(std::memory_order_relaxed);
    }
    return sum;
}

std::uint64_t DecisionCounters::of(Verdict::Reason reason) const {
    return of(Verdict::Action::pass, reason) + of(Verdict::Action::defer, reason) + of(Verdict::Action::reject, reason);
}

std::uint64_t DecisionCounters::messages() const {
    std::uint64_t sum = 0;
    for (Shard const& shard : *m_shards) {
        sum += shard.messages.load(std::memory_order_relaxed);
    }
    return sum;
}

DecisionDurations DecisionCounters::durations() const {
    DecisionDurations sum;
    for (Shard const& shard : *m_shards) {
        DecisionDurations one;
        for (std::size_t i = 0; i < one.buckets.size(); ++i) {
            one.buckets[i] = shard.durations[i].load(std::memory_order_relaxed);
        }
        one.nanoseconds = shard.nanoseconds.load(std::memory_order_relaxed);
        sum += one;
    }
    return sum;
}

} // namespace Vellum::Daemon
