#include "daemon/PassCounts.h"

#include <gtest/gtest.h>

namespace Vellum::Daemon {
namespace {

GreyList::DynamicExemptId pair(char const* domain) {
    return {IPAddressMask("192.0.2.0/24"), domain};
}

TEST(PassCounts, DifferentTuplesCountOnceEach) {
    PassCounts counts(10);
    EXPECT_EQ(counts.count(pair("a.example"), 1, 4), 1U);
    EXPECT_EQ(counts.count(pair("a.example"), 2, 4), 2U);
    EXPECT_EQ(counts.count(pair("a.example"), 1, 4), 2U);
    EXPECT_EQ(counts.count(pair("b.example"), 1, 4), 1U) << "another pair";
}

TEST(PassCounts, OneBeyondTheMostIsAnsweredEachTimeAndNotKept) {
    PassCounts counts(10);
    counts.count(pair("a.example"), 1, 2);
    counts.count(pair("a.example"), 2, 2);
    EXPECT_EQ(counts.count(pair("a.example"), 3, 2), 3U);
    EXPECT_EQ(counts.count(pair("a.example"), 4, 2), 3U);
    EXPECT_EQ(counts.count(pair("a.example"), 2, 2), 2U) << "counted already";
}

TEST(PassCounts, KeepingNoneAnswersOne) {
    PassCounts counts(10);
    EXPECT_EQ(counts.count(pair("a.example"), 1, 0), 1U);
    EXPECT_EQ(counts.pairs(), 0U);
}

TEST(PassCounts, ThePairCountedLongestAgoGoesFirst) {
    PassCounts counts(2);
    counts.count(pair("a.example"), 1, 9);
    counts.count(pair("b.example"), 1, 9);
    counts.count(pair("a.example"), 2, 9);
    counts.count(pair("c.example"), 1, 9);
    EXPECT_EQ(counts.pairs(), 2U);
    EXPECT_EQ(counts.count(pair("a.example"), 3, 9), 3U);
    EXPECT_EQ(counts.count(pair("b.example"), 2, 9), 1U) << "forgotten";
}

TEST(PassCounts, AForgottenPairStartsAgain) {
    PassCounts counts(2);
    counts.count(pair("a.example"), 1, 9);
    counts.forget(pair("a.example"));
    EXPECT_EQ(counts.count(pair("a.example"), 2, 9), 1U);
}

TEST(PassCounts, NoRoomKeepsNothing) {
    PassCounts counts(0);
    EXPECT_EQ(counts.count(pair("a.example"), 1, 9), 1U);
    EXPECT_EQ(counts.count(pair("a.example"), 2, 9), 1U);
}

} // namespace
} // namespace Vellum::Daemon
