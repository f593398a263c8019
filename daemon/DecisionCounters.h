// What a front has decided since the start: how often each reason has decided a message, and how; how long it took.
//
// Every thread counts in memory of its own (ThreadSlot.h), so a count costs a few nanoseconds however many threads
// decide, and readers add up. Of the durations one in `timedEach` is taken: reading the clock twice would cost more
// than all the rest, and shares of durations come out the same.
#pragma once

#include "daemon/DurationBuckets.h"
#include "daemon/ThreadSlot.h"
#include "daemon/Verdict.h"

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>

namespace Vellum::Daemon {

// How long decisions took.
struct DecisionDurations {
    std::array<std::uint64_t, DurationBuckets::count> buckets{};
    std::uint64_t nanoseconds = 0; // of all together

    DecisionDurations& operator+=(DecisionDurations const& more);
};

// Thread-safe; a reader may see one count of a moment ago beside another of now.
class DecisionCounters {
  public:
    static constexpr std::uint64_t timedEach = 8;

    DecisionCounters() : m_shards(std::make_unique<std::array<Shard, ThreadSlot::count>>()) {}

    void count(Verdict const& verdict) {
        Place const place = here();
        place.raise(place.shard.decisions[index(verdict.action, verdict.reason)]);
    }
    // Counts a message, at the first question about it.
    void countMessage() {
        Place const place = here();
        place.raise(place.shard.messages);
    }
    // Answers what `decide` answers, and takes the time of the first one in a thread and of each eighth after it. What
    // throws is not timed.
    template <class Decide>
    Verdict timed(Decide decide) {
        Place const place = here();
        if (place.raise(place.shard.asked) % timedEach != 0) {
            return decide();
        }
        auto const start = Clock::now();
        Verdict verdict = decide(); // not const: it is moved out
        place.add(Clock::now() - start);
        return verdict;
    }

    std::uint64_t of(Verdict::Action action, Verdict::Reason reason) const;
    // With whatever action.
    std::uint64_t of(Verdict::Reason reason) const;
    std::uint64_t messages() const;
    DecisionDurations durations() const;

  private:
    using Clock = std::chrono::steady_clock;
    using Count = std::atomic<std::uint64_t>;

    // Whole cache lines, so that no two threads write to the same one.
    struct alignas(64) Shard {
        std::array<Count, std::size_t{actionCount} * reasonCount> decisions{};
        std::array<Count, DurationBuckets::count> durations{};
        Count nanoseconds{0};
        Count messages{0};
        Count asked{0};
    };

    struct Place {
        Shard& shard;
        bool isShared; // by several threads

        // Answers the count before. One writer needs no locked instruction.
        std::uint64_t raise(Count& count, std::uint64_t by = 1) const {
            if (isShared) {
                return count.fetch_add(by, std::memory_order_relaxed);
            }
            std::uint64_t const before = count.load(std::memory_order_relaxed);
            count.store(before + by, std::memory_order_relaxed);
            return before;
        }
        void add(Clock::duration duration) const {
            auto const nanoseconds =
                static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(duration).count());
            raise(shard.durations[DurationBuckets::of(nanoseconds)]);
            raise(shard.nanoseconds, nanoseconds);
        }
    };

    Place here() {
        unsigned int const slot = ThreadSlot::current();
        return {(*m_shards)[slot], slot == ThreadSlot::shared};
    }
    static std::size_t index(Verdict::Action action, Verdict::Reason reason) {
        return static_cast<std::size_t>(action) * reasonCount + static_cast<std::size_t>(reason);
    }

    std::unique_ptr<std::array<Shard, ThreadSlot::count>> const m_shards;
};

} // namespace Vellum::Daemon
