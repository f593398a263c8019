// The terminal is left as it was found, also when it cannot be written to.
#include "tools/vellumctl/Screen.h"

#include "tools/vellumctl/Failure.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <string>
#include <termios.h>
#include <unistd.h>

namespace Vellum::Tools {
namespace {

// A terminal of the test's own; this process's standard input is it, and its standard output, opened for `mode`.
std::string takeTerminal(int mode) {
    int const master = ::posix_openpt(O_RDWR | O_NOCTTY);
    ::grantpt(master);
    ::unlockpt(master);
    std::string const name = ::ptsname(master);
    ::dup2(::open(name.c_str(), O_RDWR | O_NOCTTY), STDIN_FILENO);
    ::dup2(::open(name.c_str(), mode | O_NOCTTY), STDOUT_FILENO);
    return name;
}

bool isRaw() {
    termios now{};
    ::tcgetattr(STDIN_FILENO, &now);
    return (now.c_lflag & ICANON) == 0;
}

// Each in a process of its own; the status is the step that went wrong.
[[noreturn]] void leftByItsEnd() {
    takeTerminal(O_RDWR);
    if (isRaw()) {
        ::_exit(1);
    }
    {
        Screen const screen;
        if (!isRaw()) {
            ::_exit(2);
        }
    }
    ::_exit(isRaw() ? 3 : 0);
}

[[noreturn]] void neverBegun() {
    takeTerminal(O_RDONLY); // a terminal, but nothing can be written there
    try {
        Screen const screen;
    } catch (Failure const&) {
        struct sigaction action {};
        ::sigaction(SIGTERM, nullptr, &action);
        ::_exit(isRaw() ? 4 : action.sa_handler != SIG_DFL ? 5 : 0);
    }
    ::_exit(6);
}

[[noreturn]] void failingPage() {
    takeTerminal(O_RDWR);
    try {
        Screen screen;
        ::dup2(::open("/dev/full", O_WRONLY), STDOUT_FILENO);
        screen.show("page\n");
    } catch (Failure const&) {
        ::_exit(isRaw() ? 7 : 0);
    }
    ::_exit(8);
}

TEST(ScreenDeathTest, RestoresTheTerminalAtItsEnd) {
    EXPECT_EXIT(leftByItsEnd(), testing::ExitedWithCode(0), "");
}

TEST(ScreenDeathTest, RestoresTheTerminalThatItCannotWriteToAtAll) {
    EXPECT_EXIT(neverBegun(), testing::ExitedWithCode(0), "");
}

TEST(ScreenDeathTest, RestoresTheTerminalWhenAPageFails) {
    EXPECT_EXIT(failingPage(), testing::ExitedWithCode(0), "");
}

} // namespace
} // namespace Vellum::Tools
