// The score: worked examples, both sides of each boundary.
#include "reputation/ScoreCalculator.h"

#include "tests/support/ReputationCache.h"

#include <gtest/gtest.h>

namespace Vellum::Reputation {
namespace {

using Record = Entry::Record;

constexpr unsigned int period = 477000;
constexpr long now = period * 3600L;

Record hourOf(std::uint32_t m, std::uint32_t r, std::uint32_t iv, std::uint32_t inf, std::uint32_t sp,
              std::uint32_t et = 0, std::uint32_t eh = 0, std::uint32_t ev = 0, std::uint32_t fl = 0) {
    Record record(m, r, iv, inf, sp);
    record.extraTotal = et;
    record.extraHits = eh;
    record.extraVolume = ev;
    record.flagged = fl;
    return record;
}

// An entry with these hours before the current one: 0 is the current.
RefEntry entryOf(std::vector<std::pair<int, Record>> const& hours) {
    RefEntry const entry(true);
    for (auto const& [age, record] : hours) {
        entry->add(static_cast<unsigned int>(static_cast<int>(period) - age), record);
    }
    return entry;
}
std::uint32_t scoreOfHours(std::vector<std::pair<int, Record>> const& hours, unsigned int firstPeriod = 0) {
    return scoreOf(*entryOf(hours), now, firstPeriod);
}
std::uint32_t scoreNow(Record const& record) {
    return scoreOfHours({{0, record}});
}

TEST(TotalWeight, IsTheRunningSumOfTwelveDownToOne) {
    std::uint32_t sum = 0;
    for (unsigned int age = 0; age < 12; ++age) {
        sum += 12 - age;
        EXPECT_EQ(ScoreCalculator::totalWeight(age), sum) << age;
    }
    EXPECT_EQ(sum, 78U);
}

TEST(Score, OfTheWorkedExampleIs21) {
    Record const record = hourOf(30, 40, 4, 1, 10);
    EXPECT_EQ(ScoreCalculator::periodScore(record), 21U);
    EXPECT_EQ(scoreNow(record), 21U);
    ScoreCalculator calculator(period);
    calculator({period, record});
    EXPECT_EQ(calculator.score(), 21U);
}

TEST(Score, WithoutRecordsIsZero) {
    EXPECT_EQ(scoreOfHours({}), 0U);
}

TEST(Score, HoursWithoutMessagesOrRecipientsScoreNothingButSetTheTotal) {
    EXPECT_EQ(scoreNow(hourOf(0, 5, 5, 0, 0)), 0U);
    EXPECT_EQ(scoreNow(hourOf(5, 0, 0, 5, 5)), 0U);
    Record const spam = hourOf(5, 5, 0, 0, 5); // 20
    EXPECT_EQ(scoreOfHours({{0, spam}}), 20U);
    EXPECT_EQ(scoreOfHours({{0, spam}, {2, hourOf(0, 0, 0, 0, 0)}}), 20U * 12 / 33);
}

TEST(Score, FiveSpamMessagesOfFiveScore20) {
    EXPECT_EQ(scoreNow(hourOf(5, 5, 0, 0, 5)), 20U);
}

TEST(Score, WeightsGoFromTwelveDownToOne) {
    Record const bad = hourOf(30, 30, 0, 0, 30); // 100
    Record const good = hourOf(30, 30, 0, 0, 0); // 0
    for (int age = 0; age < 12; ++age) {
        auto const weight = static_cast<unsigned int>(12 - age);
        EXPECT_EQ(scoreOfHours({{age, bad}, {11, age == 11 ? bad : good}}), 100U * weight / 78) << age;
    }
}

TEST(Score, TotalComesFromTheOldestOfTheTwelveHours) {
    Record const bad = hourOf(30, 30, 0, 0, 30);
    EXPECT_EQ(scoreOfHours({{3, bad}}), 100U * 9 / 42);
    EXPECT_EQ(scoreOfHours({{12, bad}, {3, bad}}), (100U + 100U * 9) / 42) << "an older one counts unweighted";
    EXPECT_EQ(scoreOfHours({{12, bad}}), 0U) << "and sets no total";
}

TEST(Score, PeriodsBelowTheFirstAreSkipped) {
    Record const bad = hourOf(30, 30, 0, 0, 30);
    EXPECT_EQ(scoreOfHours({{4, bad}, {3, bad}}, period - 3), 100U * 9 / 42);
    EXPECT_EQ(scoreOfHours({{4, bad}, {3, bad}}, period - 4), (100U * 8 + 100U * 9) / 50);
}

TEST(Score, FuturePeriodsCountUnweightedAndSetNoTotal) {
    Record const bad = hourOf(30, 30, 0, 0, 30);
    EXPECT_EQ(scoreOfHours({{-1, bad}}), 0U);
    Record const mild = hourOf(30, 30, 0, 0, 6); // 600 / 60 = 10
    EXPECT_EQ(scoreOfHours({{0, mild}, {-1, bad}}), (10U * 12 + 100U) / 12);
}

TEST(Score, IsNeverAbove100) {
    Record record = hourOf(30, 30, 90, 0, 0); // iv * 100 / r = 300
    EXPECT_EQ(ScoreCalculator::periodScore(record), 300U);
    EXPECT_EQ(scoreNow(record), 100U);
}

TEST(PeriodScore, RatiosCountFrom21Messages) {
    EXPECT_EQ(ScoreCalculator::periodScore(hourOf(21, 21, 0, 0, 20)), 95U);
    EXPECT_EQ(ScoreCalculator::periodScore(hourOf(20, 20, 0, 0, 20)), 50U) << "20 of 40";
}

TEST(PeriodScore, RatioMustBeAbove70) {
    EXPECT_EQ(ScoreCalculator::periodScore(hourOf(100, 100, 0, 0, 71)), 71U);
    EXPECT_EQ(ScoreCalculator::periodScore(hourOf(100, 100, 0, 0, 70)), 35U) << "70 of 200";
    EXPECT_EQ(ScoreCalculator::periodScore(hourOf(25, 25, 0, 0, 20)), 80U);
    EXPECT_EQ(ScoreCalculator::periodScore(hourOf(1000, 1000, 0, 0, 709)), 35U) << "70.9 is 70";
}

TEST(PeriodScore, RatiosAreTriedInTheirOrder) {
    Record all = hourOf(100, 100, 73, 71, 72, 100, 74, 0, 75);
    EXPECT_EQ(ScoreCalculator::periodScore(all), 71U) << "infected";
    all.infected = 70;
    EXPECT_EQ(ScoreCalculator::periodScore(all), 72U) << "spam";
    all.spam = 70;
    EXPECT_EQ(ScoreCalculator::periodScore(all), 73U) << "invalid recipients";
    all.invalidRecipients = 70;
    EXPECT_EQ(ScoreCalculator::periodScore(all), 74U) << "extra hits";
    all.extraHits = 70;
    EXPECT_EQ(ScoreCalculator::periodScore(all), 75U) << "flagged";
    all.flagged = 70;
    EXPECT_EQ(ScoreCalculator::periodScore(all), 100U) << "350 of 300";
}

TEST(PeriodScore, ExtraHitsWithoutATotalAreTheWorst) {
    EXPECT_EQ(ScoreCalculator::periodScore(hourOf(30, 30, 0, 0, 0, 0, 1)), 100U);
    EXPECT_EQ(ScoreCalculator::periodScore(hourOf(30, 30, 0, 0, 0, 0, 0, 0, 24)), 80U) << "no hit: flagged is next";
    EXPECT_EQ(ScoreCalculator::periodScore(hourOf(20, 20, 0, 0, 0, 0, 1)), 2U) << "too few messages: 1 of 40";
}

TEST(PeriodScore, UpToNineMessagesInfectedAndSpamCountHalf) {
    EXPECT_EQ(ScoreCalculator::periodScore(hourOf(9, 9, 0, 4, 5)), 22U) << "4 of 18";
    EXPECT_EQ(ScoreCalculator::periodScore(hourOf(10, 10, 0, 4, 5)), 45U) << "9 of 20";
}

TEST(PeriodScore, HalvedSumDoesNotOverflow) {
    EXPECT_EQ(ScoreCalculator::periodScore(hourOf(9, 9, 0, 0xFFFFFFFFU, 0xFFFFFFFFU)), 100U) << "2^32 - 1 of 18";
    EXPECT_EQ(ScoreCalculator::periodScore(hourOf(9, 9, 0, 0x80000000U, 0x80000000U)), 100U) << "2^31 of 18";
    EXPECT_EQ(ScoreCalculator::periodScore(hourOf(10, 10, 0, 0x80000000U, 0x80000000U)), 0U) << "here the sum wraps";
}

TEST(PeriodScore, MessagesCountTwiceWithoutInvalidRecipients) {
    EXPECT_EQ(ScoreCalculator::periodScore(hourOf(10, 90, 0, 0, 10)), 50U) << "10 of 10 + 10";
    EXPECT_EQ(ScoreCalculator::periodScore(hourOf(10, 90, 1, 0, 10)), 11U) << "11 of 10 + 90";
}

TEST(PeriodScore, VolumeAndTotalOnlyEnlargeTheDenominator) {
    EXPECT_EQ(ScoreCalculator::periodScore(hourOf(10, 10, 0, 0, 10, 10)), 33U);
    EXPECT_EQ(ScoreCalculator::periodScore(hourOf(10, 10, 0, 0, 10, 10, 0, 10)), 25U);
}

TEST(PeriodScore, MoreBadOnesThanAllIs100) {
    EXPECT_EQ(ScoreCalculator::periodScore(hourOf(10, 10, 0, 10, 10)), 100U) << "20 of 20";
    EXPECT_EQ(ScoreCalculator::periodScore(hourOf(10, 10, 0, 10, 11)), 100U) << "21 of 20";
    EXPECT_EQ(ScoreCalculator::periodScore(hourOf(10, 10, 0, 10, 9)), 95U);
}

TEST(PeriodScore, DenominatorThatWrapsToZeroScoresZeroOr100) {
    Record record = hourOf(0x80000000U, 1, 0, 0, 0); // m twice is 2^32
    EXPECT_EQ(ScoreCalculator::periodScore(record), 0U);
    record.extraVolume = 0;
    record.spam = 1;
    EXPECT_EQ(ScoreCalculator::periodScore(record), 100U) << "1 of 0";
}

TEST(PeriodScore, ProductsWrap) {
    // 42949673 * 100 is 2^32 + 4.
    EXPECT_EQ(ScoreCalculator::periodScore(hourOf(42949673, 42949673, 0, 0, 42949673)), 0U)
        << "the ratio is 4 / m, and so is the rest";
}

TEST(Score, OfAFlaggedHourIs100) {
    RefEntry const entry(true);
    for (int n = 0; n < 50; ++n) {
        entry->increment(Entry::AttributeType::MessageCount, period, 1);
        entry->increment(Entry::AttributeType::Recipients, period, 1);
    }
    entry->increment(Entry::AttributeType::Flagged, period, 1);
    EXPECT_EQ(entry->scoreAndDrop(now), 100U);
}

} // namespace
} // namespace Vellum::Reputation
