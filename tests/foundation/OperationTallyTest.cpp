#include "foundation/OperationTally.h"

#include <gtest/gtest.h>

#include <ctime>

namespace Vellum {
namespace {

using namespace std::chrono_literals;

TEST(OperationTally, CountsByWhatItWasOfAndHowItWent) {
    OperationTally tally;
    tally.note(Operation::backup, "greylist", true, 300ms, 1000);
    tally.note(Operation::backup, "greylist", false, 100ms, 4600);
    tally.note(Operation::backup, "endpoint", false, 1ms, 5);
    tally.note(Operation::load, "greylist", true, 7s, 9);
    auto const backups = tally.all(Operation::backup);
    ASSERT_EQ(backups.size(), 2U);
    OperationTotals const& greylist = backups.at("greylist");
    EXPECT_EQ(greylist.succeeded, 1U);
    EXPECT_EQ(greylist.failed, 1U);
    EXPECT_EQ(greylist.time, 400ms);
    EXPECT_EQ(greylist.lastTime, 100ms);
    EXPECT_EQ(greylist.lastSuccess, 1000) << "the failure after it changes nothing";
    EXPECT_EQ(backups.at("endpoint").lastSuccess, 0) << "never";
    EXPECT_EQ(tally.all(Operation::load).at("greylist").succeeded, 1U);
    EXPECT_TRUE(tally.all(Operation::request).empty());
}

TEST(OperationTally, AnOperationThatDoesNotSayOtherwiseHasFailed) {
    { TalliedOperation const left(Operation::load, "tally-test"); }
    long const before = std::time(nullptr);
    auto const begin = OperationTally::Clock::now();
    std::chrono::nanoseconds least{0};
    {
        TalliedOperation done(Operation::load, "tally-test");
        auto const inside = OperationTally::Clock::now();
        while (least == 0ns) { // a tick of the clock at least
            least = OperationTally::Clock::now() - inside;
        }
        done.hasSucceeded();
    }
    std::chrono::nanoseconds const most = OperationTally::Clock::now() - begin;
    OperationTotals const totals = OperationTally::instance().all(Operation::load).at("tally-test");
    EXPECT_EQ(totals.failed, 1U);
    EXPECT_EQ(totals.succeeded, 1U);
    EXPECT_GE(totals.lastTime, least);
    EXPECT_LE(totals.lastTime, most);
    EXPECT_GE(totals.time, totals.lastTime) << "of both together";
    EXPECT_GE(totals.lastSuccess, before);
}

} // namespace
} // namespace Vellum
