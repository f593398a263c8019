#include "foundation/NoteLimiter.h"

#include "tests/support/CapturingLogger.h"

#include <gtest/gtest.h>

using namespace Vellum;
using std::chrono::seconds;

namespace {

using Notes = std::vector<std::string>;
constexpr auto warning = Logger::Severity::warning;

NoteLimiter::Clock::time_point at(int second) {
    return NoteLimiter::Clock::time_point(seconds(second));
}

} // namespace

TEST(NoteLimiter, LogsTheFirstOfEachIntervalAndCountsTheRest) {
    CapturingLogger log;
    NoteLimiter limiter(2, seconds(60));
    for (int second : {100, 101, 102, 159}) {
        limiter.note(warning, std::to_string(second), at(second));
    }
    EXPECT_EQ(log.notes(), (Notes{"100", "101"}));
    log.clear();
    limiter.note(warning, "160", at(160));
    limiter.note(warning, "161", at(161));
    limiter.note(warning, "162", at(162));
    EXPECT_EQ(log.notes(), (Notes{"160 (2 more like this were not logged)", "161"}));
}

TEST(NoteLimiter, AQuietTimeBetweenCostsNothing) {
    CapturingLogger log;
    NoteLimiter limiter(1, seconds(60));
    limiter.note(warning, "a", at(0));
    limiter.note(warning, "b", at(1000));
    limiter.note(warning, "c", at(2000));
    EXPECT_EQ(log.notes(), (Notes{"a", "b", "c"}));
}
