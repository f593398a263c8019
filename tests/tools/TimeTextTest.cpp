#include "tools/vellumctl/TimeText.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <limits>

namespace Vellum::Tools {
namespace {

constexpr std::int64_t someTime = 1795255440; // 2026-11-21 10:04:00 UTC

class TimeText : public testing::Test {
  protected:
    TimeText() {
        ::setenv("TZ", "UTC", 1);
        ::tzset();
    }
};

TEST_F(TimeText, AMinuteOfTheCalendarInLocalTime) {
    EXPECT_EQ(localTime(someTime), "2026-11-21 10:04");
    EXPECT_EQ(localTime(someTime + 59), "2026-11-21 10:04");
    EXPECT_EQ(localTime(0), "1970-01-01 00:00");
    EXPECT_EQ(localTime(-1), "1969-12-31 23:59");
}

TEST_F(TimeText, TheZoneCounts) {
    ::setenv("TZ", "UTC-2", 1);
    ::tzset();
    EXPECT_EQ(localTime(someTime), "2026-11-21 12:04");
}

TEST_F(TimeText, SecondsBeyondTheCalendarAreShownAsTheyAre) {
    EXPECT_EQ(localTime(std::numeric_limits<std::int64_t>::max()), "@9223372036854775807");
    EXPECT_EQ(localTime(std::numeric_limits<std::int64_t>::min()), "@-9223372036854775808");
}

TEST_F(TimeText, DistancesUseTheGreatestUnitThatFits) {
    EXPECT_EQ(relativeTime(100, 100), "now");
    EXPECT_EQ(relativeTime(159, 100), "in 59 s");
    EXPECT_EQ(relativeTime(160, 100), "in 1 min");
    EXPECT_EQ(relativeTime(100 + 3599, 100), "in 59 min");
    EXPECT_EQ(relativeTime(100 + 3600, 100), "in 1 h");
    EXPECT_EQ(relativeTime(100 + 2 * 86400 - 1, 100), "in 47 h");
    EXPECT_EQ(relativeTime(100 + 2 * 86400, 100), "in 2 d");
    EXPECT_EQ(relativeTime(100, 100 + 3 * 3600), "3 h ago");
    EXPECT_EQ(relativeTime(41, 100), "59 s ago");
}

TEST_F(TimeText, DistancesOfTheFarthestTimesAreTold) {
    std::int64_t const first = std::numeric_limits<std::int64_t>::min();
    std::int64_t const last = std::numeric_limits<std::int64_t>::max();
    EXPECT_EQ(relativeTime(last, first), "in 213503982334601 d");
    EXPECT_EQ(relativeTime(first, last), "213503982334601 d ago");
}

TEST_F(TimeText, TimeAndDistanceStandTogether) {
    EXPECT_EQ(timeText(someTime, someTime - 4 * 60 - 30), "2026-11-21 10:04 (in 4 min)");
}

TEST_F(TimeText, DurationsHaveTwoUnits) {
    EXPECT_EQ(durationText(12), "12 s");
    EXPECT_EQ(durationText(-5), "0 s");
    EXPECT_EQ(durationText(61), "1 min 1 s");
    EXPECT_EQ(durationText(3600 + 5 * 60), "1 h 5 min");
    EXPECT_EQ(durationText(3 * 86400 + 4 * 3600 + 59), "3 d 4 h");
}

TEST_F(TimeText, SizesAndShortTimesAreRounded) {
    EXPECT_EQ(bytesText(0), "0 bytes");
    EXPECT_EQ(bytesText(1), "1 byte");
    EXPECT_EQ(bytesText(999), "999 bytes");
    EXPECT_EQ(bytesText(1000), "1.0 kB");
    EXPECT_EQ(bytesText(12345678), "12.3 MB");
    EXPECT_EQ(bytesText(999'960'000), "1.0 GB");
    EXPECT_EQ(bytesText(1'500'000'000'000), "1.5 TB");
    EXPECT_EQ(millisecondsText(340), "340 ms");
    EXPECT_EQ(millisecondsText(12345), "12.3 s");
}

} // namespace
} // namespace Vellum::Tools
