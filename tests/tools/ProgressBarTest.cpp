#include "tools/vellumctl/ProgressBar.h"

#include <gtest/gtest.h>

#include <utility>

namespace Vellum::Tools {
namespace {

using namespace std::chrono_literals;

struct Terminal {
    std::string shown;
    ProgressBar::Clock::time_point now{};

    ProgressBar bar() {
        return ProgressBar([this](std::string_view text) { shown += text; }, "records", [this] { return now; });
    }
    std::string taken() { return std::exchange(shown, {}); }
};

TEST(ProgressBar, ShowsNothingInTheFirstHalfSecond) {
    Terminal terminal;
    {
        ProgressBar bar = terminal.bar();
        terminal.now += 499ms;
        bar.update(1, 100);
    }
    EXPECT_EQ(terminal.shown, "");
}

TEST(ProgressBar, TellsHowFarItIs) {
    Terminal terminal;
    ProgressBar bar = terminal.bar();
    terminal.now += 500ms;
    bar.update(40, 100);
    EXPECT_EQ(terminal.taken(), "\r[############                  ]  40 %  40 of 100 records");
    terminal.now += 100ms;
    bar.update(100, 100);
    EXPECT_EQ(terminal.taken(), "\r[##############################] 100 %  100 of 100 records");
}

TEST(ProgressBar, IsDrawnAtMostTenTimesASecond) {
    Terminal terminal;
    ProgressBar bar = terminal.bar();
    terminal.now += 500ms;
    bar.update(1, 100);
    terminal.taken();
    terminal.now += 99ms;
    bar.update(2, 100);
    EXPECT_EQ(terminal.taken(), "");
    terminal.now += 1ms;
    bar.update(3, 100);
    EXPECT_NE(terminal.taken(), "");
}

TEST(ProgressBar, IsWipedOutAtTheEnd) {
    Terminal terminal;
    {
        ProgressBar bar = terminal.bar();
        terminal.now += 500ms;
        bar.update(7, 0);
        EXPECT_EQ(terminal.taken(), "\r7 records") << "of a number that is not known";
    }
    EXPECT_EQ(terminal.taken(), "\r         \r");
}

TEST(ProgressBar, AShorterLineCoversALongerOne) {
    Terminal terminal;
    ProgressBar bar = terminal.bar();
    terminal.now += 500ms;
    bar.update(1000, 0);
    terminal.taken();
    terminal.now += 100ms;
    bar.update(7, 0);
    EXPECT_EQ(terminal.taken(), "\r7 records   ");
}

TEST(ProgressBar, MoreThanThereShouldBeIsAll) {
    Terminal terminal;
    ProgressBar bar = terminal.bar();
    terminal.now += 500ms;
    bar.update(120, 100);
    EXPECT_EQ(terminal.taken(), "\r[##############################] 100 %  100 of 100 records");
}

TEST(ProgressBar, WithoutATerminalShowsNothing) {
    auto now = ProgressBar::Clock::time_point{};
    ProgressBar bar(nullptr, "records", [&] { return now; });
    now += 10s;
    bar.update(1, 2);
    bar.erase();
}

} // namespace
} // namespace Vellum::Tools
