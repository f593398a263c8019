#include "mmsreputation/Entry.h"

#include "tests/support/EndpointEntries.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

namespace Vellum::MMSReputation {
namespace {

std::uint32_t scoreOf(Entry const& entry, std::uint32_t index) {
    std::uint32_t const score = entry.score(index, true);
    SharedLock const hold(Entry::s_mutex);
    EXPECT_EQ(entry.score(index, false), score);
    EXPECT_EQ(entry._score(index), score);
    return score;
}

void purge(Entry& entry, std::uint32_t lowest) {
    ExclusiveLock const hold(Entry::s_mutex);
    entry.purgeRecords(lowest);
}

TEST(EndpointEntry, NewOneHasNoRecordsNoScoreAndNoExpiry) {
    RefEntry const entry(true);
    EXPECT_TRUE(slicesOf(*entry).empty());
    EXPECT_EQ(scoreOf(*entry, 1000), 0U);
    EXPECT_EQ(entry->blacklistExpiry(), 0);
    EXPECT_EQ(entry->references(), 1U);
}

TEST(EndpointEntry, HandleMadeWithFalseHoldsNothing) {
    RefEntry const none(false);
    EXPECT_TRUE(none.isNull());
    EXPECT_THROW(none->blacklistExpiry(), Exception);
}

TEST(EndpointEntry, CopiesOfAHandleShareTheEntry) {
    RefEntry const entry(true);
    RefEntry const copy = entry;
    EXPECT_EQ(entry->references(), 2U);
    copy->blacklistExpiry(4711);
    EXPECT_EQ(entry->blacklistExpiry(), 4711);
}

TEST(EndpointEntry, TypesCountSeparately) {
    RefEntry const entry(true);
    Entry::Record const* record = entry->increment(AttributeType::infected, 1000);
    ASSERT_NE(record, nullptr);
    EXPECT_EQ(record->infected, 1U);
    EXPECT_EQ(record->spam, 0U);
    EXPECT_EQ(entry->increment(AttributeType::spam, 1000), record);
    EXPECT_EQ(entry->increment(AttributeType::spam, 1000), record);
    EXPECT_EQ(countsOf(*entry), (Counts{{1000, {2, 1}}}));
    EXPECT_EQ(static_cast<int>(AttributeType::infected), 0);
    EXPECT_EQ(static_cast<int>(AttributeType::spam), 1);
}

TEST(EndpointEntry, AnyOtherTypeMakesARecordAndCountsNothing) {
    RefEntry const entry(true);
    EXPECT_NE(entry->increment(static_cast<AttributeType>(2), 1000), nullptr);
    EXPECT_EQ(countsOf(*entry), (Counts{{1000, {0, 0}}}));
    for (std::uint32_t slice = 1001; slice <= 1015; ++slice) {
        entry->increment(static_cast<AttributeType>(2), slice);
    }
    EXPECT_EQ(slicesOf(*entry), range(1001, 1015)) << "trimmed as usual";
    EXPECT_EQ(scoreOf(*entry, 1015), 0U);
}

TEST(EndpointEntry, IncrementKeepsTheFifteenNewestSlices) {
    RefEntry const entry(true);
    for (std::uint32_t slice = 1001; slice <= 1020; ++slice) {
        entry->increment(AttributeType::spam, slice);
        if (slice % 2 == 0) {
            entry->increment(AttributeType::infected, slice);
        }
    }
    EXPECT_EQ(slicesOf(*entry), range(1006, 1020));
    EXPECT_EQ(scoreOf(*entry, 1020), 15U + 8U);
}

TEST(EndpointEntry, FifteenSlicesAreKeptAndTheSixteenthPushesOneOut) {
    RefEntry const entry(true);
    for (std::uint32_t slice = 1; slice <= 15; ++slice) {
        entry->increment(AttributeType::spam, slice);
    }
    EXPECT_EQ(slicesOf(*entry), range(1, 15));
    entry->increment(AttributeType::spam, 16);
    EXPECT_EQ(slicesOf(*entry), range(2, 16));
}

TEST(EndpointEntry, SliceOlderThanFifteenHeldOnesCountsNothing) {
    RefEntry const entry(true);
    for (std::uint32_t slice = 101; slice <= 115; ++slice) {
        entry->increment(AttributeType::spam, slice);
    }
    EXPECT_EQ(entry->increment(AttributeType::spam, 100), nullptr);
    EXPECT_EQ(entry->increment(static_cast<AttributeType>(2), 3), nullptr);
    EXPECT_EQ(slicesOf(*entry), range(101, 115));
    EXPECT_EQ(scoreOf(*entry, 115), 15U);
}

TEST(EndpointEntry, LateSliceThatIsNotTheOldestCounts) {
    RefEntry const entry(true);
    for (std::uint32_t slice = 101; slice <= 116; ++slice) {
        if (slice != 110) {
            entry->increment(AttributeType::spam, slice);
        }
    }
    EXPECT_NE(entry->increment(AttributeType::spam, 110), nullptr);
    EXPECT_EQ(slicesOf(*entry), range(102, 116));
}

TEST(EndpointEntry, LateSliceOfAnEntryWithRoomCounts) {
    RefEntry const entry(true);
    for (std::uint32_t slice = 102; slice <= 115; ++slice) {
        entry->increment(AttributeType::spam, slice);
    }
    EXPECT_NE(entry->increment(AttributeType::spam, 3), nullptr);
    EXPECT_EQ(countsOf(*entry).size(), 15U);
    EXPECT_EQ(countsOf(*entry).begin()->first, 3U);
}

TEST(EndpointEntry, AddKeepsAllAndTheScoreSumsTheNewestSixteen) {
    RefEntry const entry(true);
    for (std::uint32_t slice = 1001; slice <= 1020; ++slice) {
        entry->add(Period(slice), Entry::Record(1, 2));
    }
    EXPECT_EQ(slicesOf(*entry), range(1001, 1020));
    EXPECT_EQ(scoreOf(*entry, 1020), 16U * 3U);
}

TEST(EndpointEntry, AddReplacesBothCounts) {
    RefEntry const entry(true);
    entry->add(Period(1000U), Entry::Record(5, 6));
    entry->add(Period(1000U), Entry::Record(7, 0));
    EXPECT_EQ(countsOf(*entry), (Counts{{1000, {7, 0}}}));
}

TEST(EndpointEntry, IncrementTrimsWhatAddLeft) {
    RefEntry const entry(true);
    for (std::uint32_t slice = 1001; slice <= 1020; ++slice) {
        entry->add(Period(slice), Entry::Record(1, 0));
    }
    entry->increment(AttributeType::spam, 1020);
    EXPECT_EQ(slicesOf(*entry), range(1001, 1020)) << "no new slice";
    entry->increment(AttributeType::spam, 1021);
    EXPECT_EQ(slicesOf(*entry), range(1007, 1021));
}

TEST(EndpointEntry, SliceThatIsTrimmedWithOlderOnesCountsNothing) {
    RefEntry const entry(true);
    for (std::uint32_t slice = 1001; slice <= 1020; ++slice) {
        if (slice != 1003) {
            entry->add(Period(slice), Entry::Record(1, 0));
        }
    }
    EXPECT_EQ(entry->increment(AttributeType::spam, 1003), nullptr);
    EXPECT_EQ(slicesOf(*entry), range(1006, 1020));
    EXPECT_EQ(scoreOf(*entry, 1020), 15U);
}

TEST(EndpointEntry, SliceFifteenBackIsScoredAndSixteenBackIsNot) {
    RefEntry const entry(true);
    entry->add(Period(1000U), Entry::Record(1, 0));
    EXPECT_EQ(scoreOf(*entry, 1015), 1U);
    EXPECT_EQ(scoreOf(*entry, 1016), 0U);
}

TEST(EndpointEntry, LaterSlicesAreScoredToo) {
    RefEntry const entry(true);
    entry->add(Period(1000U), Entry::Record(1, 1));
    EXPECT_EQ(scoreOf(*entry, 20), 2U);
}

TEST(EndpointEntry, ScoreBelowSliceFifteenWraps) {
    RefEntry const entry(true);
    entry->add(Period(0U), Entry::Record(1, 0));
    entry->add(Period(10U), Entry::Record(1, 0));
    entry->add(Period(0xFFFFFFFAU), Entry::Record(1, 0));
    EXPECT_EQ(scoreOf(*entry, 10), 0U);
    entry->add(Period(0xFFFFFFFBU), Entry::Record(4, 0));
    EXPECT_EQ(scoreOf(*entry, 10), 4U);
    EXPECT_EQ(scoreOf(*entry, 15), 7U) << "no wrap any more";
}

TEST(EndpointEntry, ScoreAndCountsWrapAt32Bits) {
    RefEntry const entry(true);
    entry->add(Period(1000U), Entry::Record(0xFFFFFFFFU, 3));
    EXPECT_EQ(scoreOf(*entry, 1000), 2U);
    entry->increment(AttributeType::spam, 1000);
    EXPECT_EQ(countsOf(*entry), (Counts{{1000, {0, 3}}}));
}

TEST(EndpointEntry, PurgeDropsWhatIsBelowAndNothingElse) {
    RefEntry const entry(true);
    for (std::uint32_t slice = 1001; slice <= 1020; ++slice) {
        entry->add(Period(slice), Entry::Record(1, 0));
    }
    purge(*entry, 1001);
    EXPECT_EQ(slicesOf(*entry), range(1001, 1020)) << "the lowest is not below it";
    purge(*entry, 500);
    EXPECT_EQ(slicesOf(*entry), range(1001, 1020));
    purge(*entry, 1002);
    EXPECT_EQ(slicesOf(*entry), range(1002, 1020));
    purge(*entry, 1021);
    EXPECT_TRUE(slicesOf(*entry).empty());
}

TEST(EndpointEntry, PurgeOfAnEmptyEntryChangesNothing) {
    RefEntry const entry(true);
    purge(*entry, 0xFFFFFFFFU);
    EXPECT_TRUE(slicesOf(*entry).empty());
}

TEST(EndpointEntry, CountsOfManyThreadsAllArrive) {
    RefEntry const entry(true);
    constexpr int each = 5000;
    std::vector<std::thread> threads;
    for (std::uint32_t t = 0; t < 4; ++t) {
        threads.emplace_back([&entry, t] {
            for (int i = 0; i < each; ++i) {
                entry->increment(t % 2 == 0 ? AttributeType::spam : AttributeType::infected,
                                 1000 + static_cast<std::uint32_t>(i) % 15);
                entry->score(1014, true);
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(scoreOf(*entry, 1014), 4U * each);
}

} // namespace
} // namespace Vellum::MMSReputation
