// For tests of what happens once in a process, such as the first use of a singleton.
//
//   TEST(ThingDeathTest, FirstUseSaysHello) {
//       expectInOwnProcess([] { EXPECT_EQ(Thing::instance().said(), "hello"); });
//   }
//
// Call it once in a test, and as the first thing: the test begins again in a fresh copy of the program.
#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <exception>
#include <unistd.h>

namespace Vellum {

// Runs `check`, with its expectations, in a process in which nothing else of this program has run. What fails there is
// shown with the failure here.
template <class Check>
void expectInOwnProcess(Check check) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            bool passed = false;
            try {
                check();
                passed = !testing::Test::HasFailure();
            } catch (std::exception const& thrown) {
                std::fprintf(stderr, "thrown: %s\n", thrown.what());
            }
            std::fflush(nullptr);
            _exit(passed ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
}

} // namespace Vellum
