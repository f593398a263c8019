#include "daemon/DecisionCounters.h"

#include <gtest/gtest.h>

#include <barrier>
#include <limits>
#include <set>
#include <stdexcept>
#include <thread>
#include <vector>

namespace Vellum::Daemon {
namespace {

Verdict verdict(Verdict::Action action, Verdict::Reason reason) {
    Verdict made;
    made.action = action;
    made.reason = reason;
    return made;
}

std::uint64_t total(DecisionDurations const& durations) {
    std::uint64_t sum = 0;
    for (std::uint64_t const count : durations.buckets) {
        sum += count;
    }
    return sum;
}

TEST(DurationBuckets, EachBucketEndsAtItsUpperEndAndTheNextBeginsBehindIt) {
    EXPECT_EQ(DurationBuckets::of(0), 0U);
    EXPECT_EQ(DurationBuckets::of(1), 0U);
    for (std::size_t bucket = 0; bucket + 1 < DurationBuckets::count; ++bucket) {
        std::uint64_t const end = DurationBuckets::upperNanoseconds(bucket);
        EXPECT_EQ(DurationBuckets::of(end), bucket) << end;
        EXPECT_EQ(DurationBuckets::of(end + 1), bucket + 1) << end;
    }
    EXPECT_EQ(DurationBuckets::upperNanoseconds(0), 128U);
    EXPECT_EQ(DurationBuckets::upperNanoseconds(1), 192U);
    EXPECT_EQ(DurationBuckets::upperNanoseconds(2), 256U);
    EXPECT_EQ(DurationBuckets::upperNanoseconds(DurationBuckets::count - 2), 8'589'934'592U);
    EXPECT_EQ(DurationBuckets::of(std::numeric_limits<std::uint64_t>::max()), DurationBuckets::count - 1);
}

TEST(DecisionCounters, CountsOfAllThreadsAreAddedUpAlsoOfThoseThatHaveEnded) {
    DecisionCounters counters;
    constexpr unsigned int threads = 2 * ThreadSlot::count; // more than have memory of their own
    constexpr unsigned int each = 1000;
    std::barrier allAlive(threads);
    std::vector<std::thread> running;
    for (unsigned int i = 0; i < threads; ++i) {
        running.emplace_back([&] {
            counters.countMessage();
            allAlive.arrive_and_wait();
            for (unsigned int n = 0; n < each; ++n) {
                counters.count(verdict(Verdict::Action::defer, Verdict::Reason::fresh));
            }
        });
    }
    for (std::thread& thread : running) {
        thread.join();
    }
    counters.count(verdict(Verdict::Action::pass, Verdict::Reason::fresh));
    EXPECT_EQ(counters.of(Verdict::Action::defer, Verdict::Reason::fresh), std::uint64_t{threads} * each);
    EXPECT_EQ(counters.of(Verdict::Action::pass, Verdict::Reason::fresh), 1U);
    EXPECT_EQ(counters.of(Verdict::Reason::fresh), std::uint64_t{threads} * each + 1);
    EXPECT_EQ(counters.of(Verdict::Reason::known), 0U);
    EXPECT_EQ(counters.messages(), threads);
}

TEST(DecisionCounters, TheFirstDecisionOfAThreadAndEveryEighthAfterItIsTimed) {
    DecisionCounters counters;
    auto const decide = [] {
        return verdict(Verdict::Action::defer, Verdict::Reason::restarted);
    };
    EXPECT_EQ(total(counters.durations()), 0U);
    for (unsigned int i = 1; i <= 17; ++i) {
        EXPECT_EQ(counters.timed(decide).reason, Verdict::Reason::restarted);
        EXPECT_EQ(total(counters.durations()), (i + 7) / 8) << i;
    }
    EXPECT_EQ(counters.of(Verdict::Reason::restarted), 0U) << "timing is not counting";
}

TEST(DecisionCounters, ADecisionThatFailsIsNotTimed) {
    DecisionCounters counters;
    EXPECT_THROW(counters.timed([]() -> Verdict { throw std::runtime_error("no memory"); }), std::runtime_error);
    EXPECT_EQ(total(counters.durations()), 0U);
}

TEST(ThreadSlot, LivingThreadsHaveNumbersOfTheirOwnUntilThereAreNoMore) {
    constexpr unsigned int threads = ThreadSlot::own + 5;
    std::barrier allAlive(threads);
    std::vector<unsigned int> numbers(threads);
    std::vector<std::thread> running;
    for (unsigned int i = 0; i < threads; ++i) {
        running.emplace_back([&, i] {
            numbers[i] = ThreadSlot::current();
            allAlive.arrive_and_wait();
            EXPECT_EQ(ThreadSlot::current(), numbers[i]);
        });
    }
    for (std::thread& thread : running) {
        thread.join();
    }
    std::multiset<unsigned int> const taken(numbers.begin(), numbers.end());
    for (unsigned int number = 0; number < ThreadSlot::own; ++number) {
        EXPECT_LE(taken.count(number), 1U) << number;
    }
    EXPECT_GE(taken.count(ThreadSlot::shared), 5U);
    unsigned int again = ThreadSlot::shared;
    std::thread([&again] { again = ThreadSlot::current(); }).join();
    EXPECT_LT(again, ThreadSlot::own) << "numbers of threads that have ended are free again";
}

} // namespace
} // namespace Vellum::Daemon
