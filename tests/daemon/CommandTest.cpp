#include "daemon/Command.h"

#include "tests/support/Eventually.h"
#include "tests/support/TemporaryDirectory.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <pthread.h>
#include <string>
#include <sys/stat.h>
#include <vector>

namespace Vellum::Daemon {
namespace {

using namespace std::chrono_literals;
using End = CommandOutcome::End;

CommandOutcome shell(std::string const& script, std::chrono::milliseconds limit = 60s,
                     std::vector<std::string> const& environment = {}) {
    return runCommand({"/bin/sh", "-c", script}, limit, environment);
}

TEST(Command, TheExitStatusIsTold) {
    for (int const status : {0, 1, 3, 255}) {
        CommandOutcome const outcome = shell("exit " + std::to_string(status));
        EXPECT_EQ(outcome.end, End::exited);
        EXPECT_EQ(outcome.number, status);
        EXPECT_EQ(outcome.hasSucceeded(), status == 0);
        EXPECT_EQ(outcome.asString(10s), "ended with status " + std::to_string(status));
    }
}

TEST(Command, ASignalThatEndsItIsTold) {
    CommandOutcome const outcome = shell("kill -TERM $$");
    EXPECT_EQ(outcome.end, End::signalled);
    EXPECT_EQ(outcome.asString(10s), "was ended by signal 15 (Terminated)");
    EXPECT_FALSE(outcome.hasSucceeded());
}

TEST(Command, WhatCannotBeStartedIsToldWithTheReason) {
    CommandOutcome const missing = runCommand({"/nonexistent/command"}, 60s);
    EXPECT_EQ(missing.end, End::notStarted);
    EXPECT_EQ(missing.number, ENOENT);
    EXPECT_EQ(missing.asString(10s), "cannot be started: No such file or directory");
    EXPECT_EQ(runCommand({"/etc/passwd"}, 60s).asString(10s), "cannot be started: Permission denied");
}

bool hasDied(pid_t process) {
    std::string number, name, state;
    std::ifstream("/proc/" + std::to_string(process) + "/stat") >> number >> name >> state;
    return state.empty() || state == "Z" || state == "X";
}

// A child of its own would otherwise live on.
TEST(Command, OneThatHangsIsKilledWithWhatItStarted) {
    TemporaryDirectory const directory;
    std::string const file = directory.path() + "/child";
    pid_t child = 0;
    for (std::chrono::milliseconds limit = 500ms; child == 0 && limit < 60s; limit *= 4) { // a busy machine is slow
        CommandOutcome const outcome = shell("sleep 600 & echo $! > " + file + "; wait", limit);
        EXPECT_EQ(outcome.end, End::tooLong);
        EXPECT_EQ(outcome.asString(10s), "took longer than 10 s and was killed");
        EXPECT_FALSE(outcome.hasSucceeded());
        std::ifstream(file) >> child;
    }
    ASSERT_NE(child, 0);
    EXPECT_TRUE(eventually([&] { return hasDied(child); })) << "process " << child; // it dies after its parent
}

TEST(Command, ThereIsNoShellBetween) {
    TemporaryDirectory const directory;
    std::string const file = directory.path() + "/$HOME; touch x";
    EXPECT_TRUE(runCommand({"/usr/bin/touch", file}, 60s).hasSucceeded());
    EXPECT_TRUE(std::filesystem::exists(file));
}

TEST(Command, TheEnvironmentIsOursAndWhatWasAdded) {
    ::setenv("COMMAND_TEST", "kept", 1);
    EXPECT_TRUE(shell("test \"$COMMAND_TEST:$ADDED\" = 'kept:a b'", 60s, {"ADDED=a b"}).hasSucceeded());
}

TEST(Command, AGivenVariableTakesThePlaceOfOurs) {
    TemporaryDirectory const directory;
    std::string const file = directory.path() + "/environment";
    ::setenv("COMMAND_TEST", "ours", 1);
    ::setenv("COMMAND_TEST_2", "ours", 1);
    EXPECT_TRUE(shell("tr '\\0' '\\n' < /proc/$$/environ | grep ^COMMAND_TEST > " + file, 60s, {"COMMAND_TEST=theirs"})
                    .hasSucceeded());
    std::ifstream in(file);
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);) {
        lines.push_back(line);
    }
    std::sort(lines.begin(), lines.end());
    EXPECT_EQ(lines, (std::vector<std::string>{"COMMAND_TEST=theirs", "COMMAND_TEST_2=ours"}))
        << "each name once, and another that begins like it stays";
}

TEST(Command, ItGetsNoDescriptorsNoInputAndNoBlockedSignals) {
    sigset_t blocked;
    sigset_t before;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &blocked, &before);
    int const inherited = ::dup(0); // without close-on-exec
    EXPECT_TRUE(shell("test ! -e /proc/self/fd/" + std::to_string(inherited)).hasSucceeded());
    EXPECT_TRUE(shell("! read line").hasSucceeded()) << "its input is at its end";
    EXPECT_EQ(shell("kill -TERM $$; exit 0").end, End::signalled);
    ::close(inherited);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

} // namespace
} // namespace Vellum::Daemon
