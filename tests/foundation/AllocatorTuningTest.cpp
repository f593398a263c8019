#include "foundation/AllocatorTuning.h"

#include <cstdlib>
#include <fstream>
#include <gtest/gtest.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

namespace Vellum {
namespace {

constexpr int returned = 3; // exit status of a child in which tuneAllocator() came back
constexpr char const* startedAs = "ALLOCATOR_TUNING_TEST_STARTED_AS";
constexpr char const* expected = "glibc.malloc.hugetlb=1:glibc.malloc.mxfast=0";

// Exit status of a child that calls it with `tunables` in its environment (null: unset), to run the first test below.
int statusOfChild(char const* tunables) {
    pid_t const child = fork();
    if (child == 0) {
        setenv(startedAs, std::to_string(getpid()).c_str(), 1);
        unsetenv("GTEST_OUTPUT");
        tunables == nullptr ? unsetenv("GLIBC_TUNABLES") : setenv("GLIBC_TUNABLES", tunables, 1);
        std::string program = "foundation_tests";
        std::string filter = "--gtest_filter=AllocatorTuning.TheProgramStartsAgainWithTheSameArgumentsInTheSameProcess";
        char* argv[] = {program.data(), filter.data(), nullptr};
        tuneAllocator(argv);
        _exit(returned);
    }
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status));
    return WEXITSTATUS(status);
}

TEST(AllocatorTuning, TheProgramStartsAgainWithTheSameArgumentsInTheSameProcess) {
    if (char const* const process = std::getenv(startedAs)) { // this is the program that was started again
        ASSERT_NE(std::getenv("GLIBC_TUNABLES"), nullptr);
        EXPECT_STREQ(std::getenv("GLIBC_TUNABLES"), expected);
        EXPECT_EQ(std::to_string(getpid()), process);
        std::string name;
        std::getline(std::ifstream("/proc/self/comm"), name);
        EXPECT_EQ(name, std::string("foundation_tests").substr(0, 15)) << "it is not called exe now";
    } else {
        EXPECT_EQ(statusOfChild(nullptr), 0);
    }
}

TEST(AllocatorTuning, WhoeverHasSetTheTunablesIsLeftAlone) {
    EXPECT_EQ(statusOfChild(""), returned);
    EXPECT_EQ(statusOfChild(expected), returned);
    EXPECT_EQ(statusOfChild("glibc.malloc.tcache_count=7"), returned);
}

} // namespace
} // namespace Vellum
