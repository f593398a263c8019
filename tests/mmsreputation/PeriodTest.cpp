#include "mmsreputation/Period.h"

#include "foundation/Exception.h"
#include "tests/support/EndpointConfiguration.h"

#include <gtest/gtest.h>

#include <ctime>
#include <optional>

namespace Vellum::MMSReputation {
namespace {

std::optional<Exception> refused(long time, unsigned int windowSize, unsigned int numberRecords) {
    try {
        Period const period(time, windowSize, numberRecords);
        return std::nullopt;
    } catch (Exception const& thrown) {
        return thrown;
    }
}

void expectZeroRefused(std::optional<Exception> const& thrown) {
    ASSERT_TRUE(thrown.has_value());
    EXPECT_EQ(thrown->where(), "EndpointReputation::Period");
    EXPECT_EQ(thrown->code(), 4);
    EXPECT_EQ(thrown->sourceFile(), "MMSReputation");
    EXPECT_EQ(thrown->line(), 26U);
    EXPECT_EQ(thrown->stringParameters(), std::vector<std::string>{"WindowSize or Number records is zero"});
    EXPECT_EQ(thrown->cause(), nullptr);
}

TEST(EndpointPeriod, ThirtyMinutesInFifteenSlicesAreTwoMinutesEach) {
    for (long const time : {1L, 119L, 120L, 121L, 239L, 240L, 1700000000L, 1700000040L}) {
        Period const period(time, 30, 15);
        EXPECT_EQ(Period::s_divisor, 2U);
        EXPECT_EQ(period.index, static_cast<std::uint32_t>(time / 120)) << time;
    }
}

TEST(EndpointPeriod, WindowOfZeroIsTheConfigurations) {
    InstalledConfiguration configuration;
    EXPECT_EQ(Period(1700000000, 0, 15).index, Period(1700000000, 30, 15).index);
    EXPECT_EQ(Period::s_divisor, 2U);
    configuration->window = 150;
    EXPECT_EQ(Period(1700000000, 0, 15).index, 1700000000U / 600);
    EXPECT_EQ(Period::s_divisor, 10U) << "read afresh";
}

TEST(EndpointPeriod, ConfiguredWindowOfZeroIsRefused) {
    InstalledConfiguration configuration;
    configuration->window = 0;
    expectZeroRefused(refused(1700000000, 0, 15));
}

TEST(EndpointPeriod, ZeroRecordsAreRefused) {
    expectZeroRefused(refused(1700000000, 30, 0));
}

TEST(EndpointPeriod, WindowShorterThanTheNumberOfRecordsIsRefused) {
    expectZeroRefused(refused(1700000000, 14, 15));
    EXPECT_EQ(Period(1700000000, 15, 15).index, 1700000000U / 60);
    EXPECT_EQ(Period::s_divisor, 1U);
}

TEST(EndpointPeriod, RefusedWindowLeavesTheDivisorAsItWas) {
    Period const before(0, 45, 15);
    EXPECT_EQ(Period::s_divisor, 3U);
    EXPECT_TRUE(refused(0, 14, 15).has_value());
    EXPECT_EQ(Period::s_divisor, 3U);
}

TEST(EndpointPeriod, UnevenWindowIsRoundedDown) {
    EXPECT_EQ(Period(6000, 44, 15).index, 50U) << "two minutes";
    EXPECT_EQ(Period(6000, 45, 15).index, 33U) << "three minutes";
}

TEST(EndpointPeriod, TimeZeroIsNow) {
    auto const before = static_cast<std::uint32_t>(std::time(nullptr) / 120);
    std::uint32_t const index = Period(0, 30, 15).index;
    auto const after = static_cast<std::uint32_t>(std::time(nullptr) / 120);
    EXPECT_LE(before, index);
    EXPECT_LE(index, after);
}

TEST(EndpointPeriod, TimeIsDividedSignedAndCutTo32Bits) {
    EXPECT_EQ(Period(-1, 15, 15).index, 0U);
    EXPECT_EQ(Period(-60, 15, 15).index, 0xFFFFFFFFU);
    EXPECT_EQ(Period(60L * 0x100000005L, 15, 15).index, 5U);
}

TEST(EndpointPeriod, PeriodOfAStoredSliceIsThatSlice) {
    EXPECT_EQ(Period(14166666U).index, 14166666U);
}

TEST(EndpointPeriod, WithoutConfigurationOnlyAGivenWindowWorks) {
    NoConfiguration const none;
    EXPECT_EQ(Period(1200, 30, 15).index, 10U);
    auto const thrown = refused(1200, 0, 15);
    ASSERT_TRUE(thrown.has_value());
    EXPECT_EQ(thrown->where(), "EndpointReputation::Configuration");
}

} // namespace
} // namespace Vellum::MMSReputation
