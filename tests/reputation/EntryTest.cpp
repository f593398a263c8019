#include "reputation/ReputationEntry.h"

#include "tests/support/ReputationCache.h"

#include <gtest/gtest.h>

#include <ctime>

namespace Vellum::Reputation {
namespace {

using Record = Entry::Record;
using Type = Entry::AttributeType;

constexpr unsigned int period = 477000;
constexpr long hour = 3600;

// All nine counters, in slot order.
using Slots = std::vector<std::uint32_t>;

Slots slotsOf(Record const& record) {
    return {record.messageCount, record.recipients, record.invalidRecipients, record.infected, record.spam,
            record.extraTotal,   record.extraHits,  record.extraVolume,       record.flagged};
}
Slots slotsOf(RefEntry const& entry, unsigned int of = period) {
    return slotsOf(recordsOf(entry).at(of));
}

TEST(Record, ConstructorFillsFiveSlotsAndZeroesTheOthers) {
    EXPECT_EQ(slotsOf(Record(1, 2, 3, 4, 5)), (Slots{1, 2, 3, 4, 5, 0, 0, 0, 0}));
}

TEST(Entry, BeginsEmpty) {
    RefEntry const entry(true);
    EXPECT_TRUE(recordsOf(entry).empty());
    EXPECT_EQ(entry->state(), ReputationState::unset);
    EXPECT_EQ(entry->lastModified(), 0);
    EXPECT_EQ(entry->messageCount(0), 0U);
    EXPECT_EQ(entry->score(), 0U);
    EXPECT_EQ(scoreOf(*entry, 1'700'000'000, 0), 0U);
}

TEST(RefEntry, HoldsANewEntryOrNone) {
    RefEntry const none(false);
    EXPECT_TRUE(none.isNull());
    EXPECT_FALSE(none);
    RefEntry const one(true);
    EXPECT_FALSE(one.isNull());
    RefEntry const same = one;
    EXPECT_EQ(same, one);
    EXPECT_FALSE(RefEntry(true) == one);
    same->state(ReputationState::watched);
    EXPECT_EQ(one->state(), ReputationState::watched);
    EXPECT_EQ(one->shared_from_this().get(), &*same);
}

TEST(EntryState, IsAny32BitsAndNoModification) {
    RefEntry const entry(true);
    entry->state(static_cast<ReputationState>(0xFFFFFFFFU));
    EXPECT_EQ(static_cast<std::uint32_t>(entry->state()), 0xFFFFFFFFU);
    EXPECT_EQ(entry->lastModified(), 0);
}

TEST(EntryAdd, OverwritesAllNineCountersAndIsNoModification) {
    RefEntry const entry(true);
    entry->increment(Type::MessageCount, period, 5);
    entry->increment(Type::Flagged, period, 1);
    entry->add(period, Record(1, 2, 3, 4, 5));
    EXPECT_EQ(slotsOf(entry), (Slots{1, 2, 3, 4, 5, 0, 0, 0, 0})) << "without any bound";
    RefEntry const loaded(true);
    loaded->add(period, Record(1, 1, 0, 0, 0));
    loaded->add(period - 2, Record(1, 1, 0, 0, 0));
    EXPECT_EQ(loaded->lastModified(), period * hour) << "the newest period";
    loaded->add(period + 1, Record(1, 1, 0, 0, 0));
    EXPECT_EQ(loaded->lastModified(), period * hour) << "and that was kept";
}

TEST(EntryLastModified, IsTheClocksAfterAChange) {
    RefEntry const entry(true);
    long const before = std::time(nullptr);
    entry->increment(Type::Spam, period, 1);
    EXPECT_GE(entry->lastModified(), before);
    EXPECT_LE(entry->lastModified(), std::time(nullptr));
}

TEST(EntryLastModified, OfPeriodZeroIsAskedForAgainAndAgain) {
    RefEntry const entry(true);
    entry->add(0, Record(1, 1, 0, 0, 0));
    EXPECT_EQ(entry->lastModified(), 0) << "which is the start of the period";
    entry->add(7, Record(1, 1, 0, 0, 0));
    EXPECT_EQ(entry->lastModified(), 7 * hour);
}

TEST(EntryLastModified, OfTheLatestPossiblePeriodDoesNotWrap) {
    RefEntry const entry(true);
    entry->add(0xFFFFFFFFU, Record(1, 1, 0, 0, 0));
    EXPECT_EQ(entry->lastModified(), 0xFFFFFFFFL * 3600);
}

TEST(EntryMessageCount, IsThatOfTheHour) {
    RefEntry const entry(true);
    entry->add(period, Record(7, 1, 0, 0, 0));
    EXPECT_EQ(entry->messageCount(period * hour), 7U);
    EXPECT_EQ(entry->messageCount(period * hour + 3599), 7U);
    EXPECT_EQ(entry->messageCount(period * hour + 3600), 0U);
    EXPECT_EQ(entry->messageCount(period * hour - 1), 0U);
}

TEST(EntryMessageCount, OfZeroIsTheClocksHour) {
    RefEntry const entry(true);
    auto const now = static_cast<unsigned int>(std::time(nullptr) / hour);
    entry->add(now, Record(7, 1, 0, 0, 0));
    entry->add(now + 1, Record(7, 1, 0, 0, 0)); // should the hour end just now
    EXPECT_EQ(entry->messageCount(0), 7U);
}

TEST(EntryIncrement, MessagesAndRecipientsHaveNoBoundAndWrap) {
    RefEntry const entry(true);
    entry->increment(Type::MessageCount, period, 0xFFFFFFFFU);
    entry->increment(Type::Recipients, period, 0xFFFFFFFEU);
    EXPECT_EQ(slotsOf(entry), (Slots{0xFFFFFFFFU, 0xFFFFFFFEU, 0, 0, 0, 0, 0, 0, 0}));
    entry->increment(Type::MessageCount, period, 3);
    entry->increment(Type::Recipients, period, 3);
    EXPECT_EQ(slotsOf(entry), (Slots{2, 1, 0, 0, 0, 0, 0, 0, 0}));
}

TEST(EntryIncrement, InvalidRecipientsStopAtRecipients) {
    RefEntry const entry(true);
    entry->increment(Type::Recipients, period, 10);
    entry->increment(Type::InvalidRecipients, period, 10);
    EXPECT_EQ(slotsOf(entry)[2], 10U);
    entry->increment(Type::InvalidRecipients, period, 1);
    EXPECT_EQ(slotsOf(entry)[2], 10U);
}

TEST(EntryIncrement, FiveCountersStopAtTheMessages) {
    for (unsigned int const slot : {3U, 4U, 5U, 6U, 7U}) {
        RefEntry const entry(true);
        entry->increment(static_cast<Type>(slot), period, 4);
        EXPECT_EQ(slotsOf(entry)[slot], 0U) << "no message yet, slot " << slot;
        entry->increment(Type::MessageCount, period, 5);
        entry->increment(static_cast<Type>(slot), period, 4);
        EXPECT_EQ(slotsOf(entry)[slot], 4U);
        entry->increment(static_cast<Type>(slot), period, 1);
        EXPECT_EQ(slotsOf(entry)[slot], 5U);
        entry->increment(static_cast<Type>(slot), period, 1);
        EXPECT_EQ(slotsOf(entry)[slot], 5U);
        entry->increment(static_cast<Type>(slot), period, 0xFFFFFFFCU); // 5 - 4: the sum wraps first
        EXPECT_EQ(slotsOf(entry)[slot], 1U);
    }
}

// Looks like a slip and is none: a flagged hour is to count as flagged in full.
TEST(EntryIncrement, FlaggedIsRaisedToTheMessages) {
    RefEntry const entry(true);
    entry->increment(Type::MessageCount, period, 50);
    entry->increment(Type::Flagged, period, 1);
    EXPECT_EQ(slotsOf(entry)[8], 50U);
    entry->increment(Type::Flagged, period, 1);
    EXPECT_EQ(slotsOf(entry)[8], 51U) << "above the messages it stays";
    entry->increment(Type::MessageCount, period, 10);
    EXPECT_EQ(slotsOf(entry)[8], 51U) << "only its own increment raises it";
    entry->increment(Type::Recipients, period, 50);
    EXPECT_EQ(entry->scoreAndDrop(period * hour), 85U) << "51 of 60";
}

TEST(EntryIncrement, UnknownTypeMakesTheRecordAndIsAModification) {
    for (unsigned int const slot : {9U, 10U, 0xFFFFFFFFU}) {
        RefEntry const entry(true);
        long const before = std::time(nullptr);
        entry->increment(static_cast<Type>(slot), period, 5);
        EXPECT_EQ(slotsOf(entry), Slots(9, 0));
        EXPECT_GE(entry->lastModified(), before);
    }
}

TEST(EntryDecrement, StopsAtZero) {
    for (unsigned int slot = 0; slot < 9; ++slot) {
        RefEntry const entry(true);
        entry->increment(Type::MessageCount, period, 20);
        entry->increment(Type::Recipients, period, 20);
        if (slot > 1) {
            entry->increment(static_cast<Type>(slot), period, 20);
        }
        auto const type = static_cast<Type>(slot);
        entry->decrement(type, period, 19);
        EXPECT_EQ(slotsOf(entry)[slot], 1U);
        entry->decrement(type, period, 0);
        EXPECT_EQ(slotsOf(entry)[slot], 1U);
        entry->decrement(type, period, 2);
        EXPECT_EQ(slotsOf(entry)[slot], 0U);
        entry->decrement(type, period, 0xFFFFFFFFU);
        EXPECT_EQ(slotsOf(entry)[slot], 0U);
    }
}

TEST(EntryDecrement, FewerRecipientsAreFewerInvalidOnes) {
    RefEntry const entry(true);
    entry->add(period, Record(1, 10, 6, 0, 0));
    entry->decrement(Type::Recipients, period, 4);
    EXPECT_EQ(slotsOf(entry), (Slots{1, 6, 6, 0, 0, 0, 0, 0, 0}));
    entry->decrement(Type::Recipients, period, 1);
    EXPECT_EQ(slotsOf(entry), (Slots{1, 5, 5, 0, 0, 0, 0, 0, 0}));
    entry->add(period, Record(1, 0, 6, 0, 0));
    entry->decrement(Type::Recipients, period, 1);
    EXPECT_EQ(slotsOf(entry), (Slots{1, 0, 0, 0, 0, 0, 0, 0, 0})) << "of none, none is invalid";
}

TEST(EntryDecrement, FewerMessagesLowerNothingElse) {
    RefEntry const entry(true);
    entry->add(period, Record(5, 5, 5, 5, 5));
    entry->decrement(Type::MessageCount, period, 5);
    EXPECT_EQ(slotsOf(entry), (Slots{0, 5, 5, 5, 5, 0, 0, 0, 0}));
}

TEST(EntryDecrement, MissingPeriodStaysMissingAndIsNoModification) {
    RefEntry const entry(true);
    entry->decrement(Type::MessageCount, period, 1);
    EXPECT_TRUE(recordsOf(entry).empty());
    entry->add(period, Record(1, 1, 1, 1, 1));
    entry->decrement(Type::MessageCount, period + 1, 1);
    entry->decrement(Type::MessageCount, period - 1, 1);
    EXPECT_EQ(recordsOf(entry).size(), 1U);
    EXPECT_EQ(entry->lastModified(), period * hour);
}

TEST(EntryDecrement, UnknownTypeOfAnExistingPeriodIsAModificationOnly) {
    RefEntry const entry(true);
    entry->add(period, Record(5, 5, 5, 5, 5));
    long const before = std::time(nullptr);
    entry->decrement(static_cast<Type>(9), period, 1);
    EXPECT_EQ(slotsOf(entry), (Slots{5, 5, 5, 5, 5, 0, 0, 0, 0}));
    EXPECT_GE(entry->lastModified(), before);
}

TEST(EntryScore, DropsWhatIsTwelveHoursOldAndKeepsElevenHours) {
    RefEntry const entry(true);
    for (unsigned int age = 0; age < 15; ++age) {
        entry->add(period - age, Record(5, 5, 0, 0, 5));
    }
    EXPECT_EQ(entry->scoreAndDrop(period * hour), 20U);
    ASSERT_EQ(recordsOf(entry).size(), 12U);
    EXPECT_EQ(recordsOf(entry).begin()->first, period - 11);
    EXPECT_EQ(entry->scoreAndDrop(period * hour + 3599), 20U);
    EXPECT_EQ(recordsOf(entry).size(), 12U) << "until the hour is over";
    entry->scoreAndDrop(period * hour + 3600);
    EXPECT_EQ(recordsOf(entry).begin()->first, period - 10);
}

TEST(EntryScore, DropsAllWhenAllAreOldAndThenThereWasNoChange) {
    RefEntry const entry(true);
    entry->add(period, Record(5, 5, 0, 0, 5));
    EXPECT_EQ(entry->scoreAndDrop((period + 12) * hour), 0U);
    EXPECT_TRUE(recordsOf(entry).empty());
    EXPECT_EQ(entry->lastModified(), 0);
}

TEST(EntryScore, LastChangeThatWasAskedForOutlivesTheHoursItCameFrom) {
    RefEntry const entry(true);
    entry->add(period, Record(5, 5, 0, 0, 5));
    EXPECT_EQ(entry->lastModified(), long{period} * hour);
    entry->scoreAndDrop((period + 12) * hour);
    ASSERT_TRUE(recordsOf(entry).empty());
    EXPECT_EQ(entry->lastModified(), long{period} * hour);
}

TEST(EntryScore, ClockNearTheEpochTakesEveryRecordForOld) {
    RefEntry const entry(true);
    entry->add(0, Record(5, 5, 0, 0, 5));
    EXPECT_EQ(entry->scoreAndDrop(43199), 0U) << "the first period to keep wraps";
    EXPECT_TRUE(recordsOf(entry).empty());
    entry->add(0, Record(5, 5, 0, 0, 5));
    entry->add(1, Record(5, 5, 0, 0, 5));
    EXPECT_EQ(entry->scoreAndDrop(43200), 20U * 1 / 78);
    ASSERT_EQ(recordsOf(entry).size(), 1U);
    EXPECT_EQ(recordsOf(entry).begin()->first, 1U) << "the first of the twelve";
}

TEST(EntryScore, ListedScoreDropsNothing) {
    RefEntry const entry(true);
    for (unsigned int age = 0; age < 15; ++age) {
        entry->add(period - age, Record(5, 5, 0, 0, 5));
    }
    EXPECT_EQ(scoreOf(*entry, period * hour, period - 11), 20U);
    EXPECT_EQ(recordsOf(entry).size(), 15U);
}

TEST(EntryScore, FirstPeriodOfAListingIsElevenHoursBack) {
    EXPECT_EQ(Entry::firstPeriodAt(period * hour), period - 11);
    EXPECT_EQ(Entry::firstPeriodAt(period * hour + 3599), period - 11);
    EXPECT_EQ(Entry::firstPeriodAt(period * hour + 3600), period - 10);
    EXPECT_EQ(Entry::firstPeriodAt(43200), 1U);
    EXPECT_EQ(Entry::firstPeriodAt(0), 0xFFFFFFF5U) << "signed division, then 32 bits";
}

} // namespace
} // namespace Vellum::Reputation
