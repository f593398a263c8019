#include "senderratecontrol/Entry.h"

#include <gtest/gtest.h>

#include <initializer_list>
#include <limits>
#include <vector>

// Plain data outside of any family: five counters and nothing else.
static_assert(sizeof(SenderRateControlRecord) == 20);

namespace Vellum::SenderRateControl {
namespace {

constexpr long now = 1'000'000'000;
constexpr unsigned int current = 3'333'333; // the period of `now`

using Counts = std::vector<std::uint32_t>;

Counts counts(SenderRateControlRecord const& record) {
    return {record.count1, record.count2, record.count3, record.count4, record.count5};
}
Counts totalsAt(Entry const& entry, long time) {
    SenderRateControlRecord out{};
    entry.totals(time, out);
    return counts(out);
}
std::vector<unsigned int> periodsOf(Entry const& entry) {
    std::vector<unsigned int> periods;
    for (auto const& [period, record] : entry.records()) {
        periods.push_back(period);
    }
    return periods;
}

TEST(RateEntry, NewEntryIsEmptyAndFree) {
    Entry const entry;
    EXPECT_TRUE(entry.records().empty());
    EXPECT_EQ(entry.state(), RateControlState::normal);
    EXPECT_EQ(static_cast<std::uint32_t>(entry.state()), 0U);
    EXPECT_EQ(entry.blockedUntil(), 0);
    EXPECT_EQ(entry.blockedReason(), 0U);
}

TEST(RateEntry, WithoutRecordsTotalsLeaveTheirTargetAsItIs) {
    Entry const entry;
    EXPECT_EQ(totalsAt(entry, now), Counts(5, 0));
    SenderRateControlRecord out{1, 2, 3, 4, 5};
    entry.totals(now, out);
    EXPECT_EQ(counts(out), (Counts{1, 2, 3, 4, 5}));
    EXPECT_EQ(entry.firstPeriod(), 0U);
    EXPECT_EQ(entry.lastPeriod(), 0U);
}

TEST(RateEntry, FirstAndLastPeriodAreTheSmallestAndTheLargestHeld) {
    Entry const entry;
    for (unsigned int const period : {70U, 10U, 90U, 30U}) {
        entry.increment(Entry::Attribute1, period, 1);
    }
    EXPECT_EQ(entry.firstPeriod(), 10U);
    EXPECT_EQ(entry.lastPeriod(), 90U);
    EXPECT_EQ(periodsOf(entry), (std::vector<unsigned int>{10, 30, 70, 90}));
}

TEST(RateEntry, EachTypeCountsItsOwnCounter) {
    Entry const entry;
    for (std::uint32_t type = 1; type <= 5; ++type) {
        entry.increment(Entry::AttributeType{type}, current, type * 10);
    }
    EXPECT_EQ(entry.records().at(current), Entry::Record(10, 20, 30, 40, 50));
    entry.increment(Entry::Attribute3, current, 1);
    EXPECT_EQ(entry.records().at(current), Entry::Record(10, 20, 31, 40, 50));
    EXPECT_EQ(entry.records().at(current).reserved, 0U);
}

TEST(RateEntry, TypesAreNumberedFromOne) {
    EXPECT_EQ((std::vector<std::uint32_t>{Entry::Attribute1, Entry::Attribute2, Entry::Attribute3, Entry::Attribute4,
                                          Entry::Attribute5}),
              (std::vector<std::uint32_t>{1, 2, 3, 4, 5}));
}

TEST(RateEntry, TypesThatSelectNothingMakeAnEmptyRecord) {
    for (std::uint32_t const type : {0U, 6U, 7U, 0x80000000U, 0xFFFFFFFFU}) {
        Entry const entry;
        entry.increment(Entry::AttributeType{type}, current, 5);
        EXPECT_EQ(periodsOf(entry), std::vector<unsigned int>{current}) << type;
        EXPECT_EQ(entry.records().at(current), Entry::Record()) << type;
        EXPECT_EQ(totalsAt(entry, now), Counts(5, 0)) << type;
    }
}

TEST(RateEntry, CountersWrapAtTwoToTheThirtySecond) {
    Entry entry;
    entry.add(current, {0xFFFFFFFF, 0, 0, 0, 0xFFFFFFFE});
    entry.increment(Entry::Attribute1, current, 1);
    entry.increment(Entry::Attribute5, current, 1);
    EXPECT_EQ(entry.records().at(current), Entry::Record(0, 0, 0, 0, 0xFFFFFFFF));
    entry.add(current - 1, {0, 0, 0, 0, 3});
    EXPECT_EQ(totalsAt(entry, now), (Counts{0, 0, 0, 0, 2})) << "and so do totals";
}

TEST(RateEntry, IncrementOfNothingMakesTheRecordToo) {
    Entry const entry;
    entry.increment(Entry::Attribute2, current, 0);
    EXPECT_EQ(periodsOf(entry), std::vector<unsigned int>{current});
}

TEST(RateEntry, ForgettingDropsAllPeriodsAndNothingElse) {
    Entry entry;
    EXPECT_EQ(entry.forget(), 0U);
    for (unsigned int const period : {current - 7, current - 5, current}) {
        entry.increment(Entry::Attribute2, period, 3);
    }
    entry.state(RateControlState::blocked);
    entry.blockedUntil(now + 60);
    entry.blockedReason(Entry::Attribute2);
    EXPECT_EQ(entry.forget(), 3U);
    EXPECT_EQ(periodsOf(entry), std::vector<unsigned int>{});
    EXPECT_EQ(totalsAt(entry, now), Counts(5, 0));
    EXPECT_EQ(entry.state(), RateControlState::blocked);
    EXPECT_EQ(entry.blockedUntil(), now + 60);
    EXPECT_EQ(entry.blockedReason(), Entry::Attribute2);
    entry.increment(Entry::Attribute2, current, 1);
    EXPECT_EQ(totalsAt(entry, now), (Counts{0, 1, 0, 0, 0}));
}

TEST(RateEntry, AddReplacesTheWholeRecord) {
    Entry entry;
    entry.increment(Entry::Attribute1, current, 7);
    Entry::Record record(1, 2, 3, 4, 5);
    record.reserved = 6;
    entry.add(current, record);
    EXPECT_EQ(entry.records().at(current), record);
    EXPECT_EQ(entry.records().at(current).reserved, 6U);
    entry.increment(Entry::Attribute1, current, 1);
    EXPECT_EQ(entry.records().at(current).reserved, 6U) << "travels with the record";
    entry.add(current, Entry::Record());
    EXPECT_EQ(entry.records().at(current), Entry::Record());
    entry.add(current - 100, {1, 0, 0, 0, 0});
    EXPECT_EQ(periodsOf(entry), (std::vector<unsigned int>{current - 100, current}));
}

TEST(RateEntry, ARecordIsMadeOfFiveCounters) {
    Entry::Record const record(1, 2, 3, 4, 5);
    EXPECT_EQ(record.count1, 1U);
    EXPECT_EQ(record.count2, 2U);
    EXPECT_EQ(record.count3, 3U);
    EXPECT_EQ(record.count4, 4U);
    EXPECT_EQ(record.count5, 5U);
    EXPECT_EQ(record.reserved, 0U);
    EXPECT_EQ(Entry::Record().reserved, 0U);
}

TEST(RateTotals, CoverTheCurrentPeriodAndTheFiveBeforeIt) {
    EXPECT_EQ(firstPeriodAt(now), 3'333'328U);
    Entry entry;
    for (unsigned int back = 0; back <= 7; ++back) {
        entry.add(current - back, {1U << back, 10U << back, 0, 0, 1});
    }
    EXPECT_EQ(totalsAt(entry, now), (Counts{63, 630, 0, 0, 6}));
    EXPECT_EQ(entry.firstPeriod(), current - 5) << "older ones are forgotten";
    EXPECT_EQ(entry.lastPeriod(), current);
}

TEST(RateTotals, FivePeriodsOldIsCountedAndSixPeriodsOldIsForgotten) {
    Entry const entry;
    entry.increment(Entry::Attribute1, current - 6, 1);
    entry.increment(Entry::Attribute1, current - 5, 10);
    EXPECT_EQ(totalsAt(entry, now)[0], 10U);
    EXPECT_EQ(periodsOf(entry), std::vector<unsigned int>{current - 5});
}

TEST(RateTotals, BothSidesOfEverySlotBoundary) {
    for (unsigned int slot = 0; slot <= 6; ++slot) {
        long const end = (static_cast<long>(current) + slot + 1) * 300; // the next period begins
        for (long const time : {end - 300, end - 1, end}) {
            Entry const entry;
            entry.increment(Entry::Attribute4, current, 9);
            bool const counted = time < end ? slot <= 5 : slot <= 4;
            EXPECT_EQ(totalsAt(entry, time)[3], counted ? 9U : 0U) << "slot " << slot << ", time " << time;
            EXPECT_EQ(entry.records().size(), counted ? 1U : 0U) << "slot " << slot << ", time " << time;
        }
    }
}

TEST(RateTotals, PeriodsAheadAreCounted) {
    Entry const entry;
    entry.increment(Entry::Attribute1, current + 1000, 4);
    EXPECT_EQ(totalsAt(entry, now)[0], 4U);
    EXPECT_EQ(entry.records().size(), 1U);
}

TEST(RateTotals, AccumulateIntoWhatTheirTargetHolds) {
    Entry entry;
    entry.add(current, {1, 2, 3, 4, 5});
    SenderRateControlRecord out{};
    entry.totals(now, out);
    EXPECT_EQ(counts(out), (Counts{1, 2, 3, 4, 5}));
    entry.totals(now, out);
    EXPECT_EQ(counts(out), (Counts{2, 4, 6, 8, 10}));
}

TEST(RateTotals, NothingButTotalsForgets) {
    Entry entry;
    for (unsigned int period = 1; period <= 100; ++period) {
        entry.increment(Entry::Attribute1, period, 1);
    }
    entry.add(current, {1, 0, 0, 0, 0});
    entry.reset();
    entry.state(RateControlState::blocked);
    static_cast<void>(entry.firstPeriod());
    EXPECT_EQ(entry.records().size(), 101U);
    EXPECT_EQ(totalsAt(entry, now)[0], 1U);
    EXPECT_EQ(entry.records().size(), 1U);
}

TEST(RateTotals, FromAPeriodOnUnderASharedHold) {
    Entry entry;
    entry.add(10, {1, 0, 0, 0, 0});
    entry.add(11, {2, 0, 0, 0, 0});
    entry.add(12, {4, 0, 0, 0, 0});
    SenderRateControlRecord out{};
    {
        SharedLock const hold(Entry::s_lock);
        entry.totalsNoLock(11, out);
    }
    EXPECT_EQ(counts(out), (Counts{6, 0, 0, 0, 0}));
    EXPECT_EQ(periodsOf(entry), (std::vector<unsigned int>{11, 12}));
    out = {};
    {
        SharedLock const hold(Entry::s_lock);
        entry.totalsNoLock(13, out);
    }
    EXPECT_EQ(counts(out), Counts(5, 0));
    EXPECT_TRUE(entry.records().empty());
}

// In signed arithmetic, and then as unsigned 32-bit.
TEST(RateTotals, FirstPeriodAroundTheEpochAndPastTwoToTheThirtySecond) {
    EXPECT_EQ(firstPeriodAt(1800), 1U);
    EXPECT_EQ(firstPeriodAt(1799), 1U) << "division rounds towards zero";
    EXPECT_EQ(firstPeriodAt(1501), 1U);
    EXPECT_EQ(firstPeriodAt(1500), 0U);
    EXPECT_EQ(firstPeriodAt(1200), 0xFFFFFFFFU);
    EXPECT_EQ(firstPeriodAt(2099), 1U);
    EXPECT_EQ(firstPeriodAt(2100), 2U);
    EXPECT_EQ(firstPeriodAt((1L << 32) * 300 + 1800 + 300), 2U);
}

TEST(RateBlock, FieldsAreSetOneByOneAndResetTogether) {
    Entry entry;
    entry.increment(Entry::Attribute1, current, 3);
    entry.state(RateControlState::blocked);
    entry.blockedUntil(now + 600);
    entry.blockedReason(Entry::Attribute5);
    EXPECT_EQ(entry.state(), RateControlState::blocked);
    EXPECT_EQ(entry.blockedUntil(), now + 600);
    EXPECT_EQ(entry.blockedReason(), Entry::Attribute5);
    entry.reset();
    EXPECT_EQ(entry.state(), RateControlState::normal);
    EXPECT_EQ(entry.blockedUntil(), 0);
    EXPECT_EQ(entry.blockedReason(), 0U);
    EXPECT_EQ(totalsAt(entry, now)[0], 3U) << "the records stay as they were";
}

TEST(RateBlock, AnyValueIsKeptAsItIs) {
    Entry entry;
    entry.state(RateControlState{0xFFFFFFFF});
    entry.blockedReason(Entry::AttributeType{77});
    entry.blockedUntil(std::numeric_limits<long>::min());
    EXPECT_EQ(static_cast<std::uint32_t>(entry.state()), 0xFFFFFFFFU);
    EXPECT_EQ(entry.blockedReason(), 77U);
    EXPECT_EQ(entry.blockedUntil(), std::numeric_limits<long>::min());
}

TEST(RateBlock, TotalsDoNotEndABlock) {
    Entry entry;
    entry.blockedUntil(now - 1);
    entry.state(RateControlState::blocked);
    static_cast<void>(totalsAt(entry, now));
    EXPECT_EQ(entry.blockedUntil(), now - 1);
    EXPECT_EQ(entry.state(), RateControlState::blocked);
}

TEST(RateRefEntry, ASharedHandleOrAnEmptyOne) {
    RefEntry const empty(false);
    EXPECT_TRUE(empty.isNull());
    EXPECT_FALSE(static_cast<bool>(empty));
    RefEntry const first(true);
    ASSERT_TRUE(static_cast<bool>(first));
    RefEntry const copy(first); // NOLINT: what is tested
    copy->increment(Entry::Attribute1, 1, 1);
    EXPECT_EQ(first->records().size(), 1U);
    EXPECT_EQ(first->shared_from_this().use_count(), 3);
}

} // namespace
} // namespace Vellum::SenderRateControl
