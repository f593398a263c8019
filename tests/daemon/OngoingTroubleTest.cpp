#include "daemon/OngoingTrouble.h"

#include "tests/support/CapturingLogger.h"

#include <gtest/gtest.h>

using namespace Vellum;
using namespace Vellum::Daemon;
using std::chrono::seconds;

namespace {

using Notes = std::vector<std::string>;

OngoingTrouble::Clock::time_point at(int second) {
    return OngoingTrouble::Clock::time_point(seconds(second));
}

} // namespace

TEST(OngoingTrouble, ItsBeginAndItsEndAreLoggedOnce) {
    CapturingLogger log;
    OngoingTrouble trouble(seconds(60));
    trouble.ends("no trouble yet");
    EXPECT_FALSE(trouble.lasts());
    trouble.begins("begin", at(0));
    EXPECT_TRUE(trouble.lasts());
    trouble.begins("begin", at(1000));
    trouble.ends("end");
    EXPECT_FALSE(trouble.lasts());
    trouble.ends("end");
    EXPECT_EQ(log.notes(), (Notes{"begin", "end"}));
}

TEST(OngoingTrouble, ThatComesBackSoonIsNotMentionedAgain) {
    CapturingLogger log;
    OngoingTrouble trouble(seconds(60));
    trouble.begins("begin", at(100));
    trouble.ends("end");
    trouble.begins("too soon", at(159));
    EXPECT_TRUE(trouble.lasts()) << "though it is not mentioned";
    trouble.ends("too soon");
    EXPECT_EQ(log.notes(), (Notes{"begin", "end"}));
    trouble.begins("again", at(160));
    EXPECT_EQ(log.notes(), (Notes{"begin", "end", "again"}));
}
