#include "foundation/DetachedBackup.h"

#include "../support/CapturingLogger.h"
#include "foundation/Exception.h"

#include <atomic>
#include <future>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdexcept>
#include <thread>
#include <vector>

namespace Vellum {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

constexpr std::chrono::seconds patience{60}; // only a test that fails waits for so long

// A backup that waits to be let go.
class HeldBackup {
  public:
    std::function<void()> work() {
        return [this] {
            m_begun.set_value();
            m_released.get_future().wait();
        };
    }
    void awaitBegin() { m_begun.get_future().wait(); }
    void release() { m_released.set_value(); }

  private:
    std::promise<void> m_begun;
    std::promise<void> m_released;
};

TEST(DetachedBackup, RunsOnAThreadOfItsOwn) {
    std::atomic<bool> done{false};
    std::thread::id worker;
    DetachedBackup::start("a", [&] {
        worker = std::this_thread::get_id();
        done = true;
    });
    ASSERT_TRUE(DetachedBackup::waitForAll(patience));
    EXPECT_TRUE(done);
    EXPECT_NE(worker, std::this_thread::get_id());
    EXPECT_EQ(DetachedBackup::running(), 0U);
}

TEST(DetachedBackup, StartsDuringARunMakeOneMoreRunTogether) {
    HeldBackup first;
    std::vector<int> runs; // written by one thread after the other
    DetachedBackup::start("a", first.work());
    first.awaitBegin();
    for (int number = 1; number <= 5; ++number) {
        DetachedBackup::start("a", [&runs, number] { runs.push_back(number); });
    }
    EXPECT_EQ(DetachedBackup::running(), 1U);
    EXPECT_FALSE(DetachedBackup::waitForAll(std::chrono::milliseconds(1)));
    first.release();
    ASSERT_TRUE(DetachedBackup::waitForAll(patience));
    EXPECT_THAT(runs, ElementsAre(5)) << "the latest of them, once";
}

TEST(DetachedBackup, FamiliesRunBesideEachOther) {
    HeldBackup one;
    HeldBackup two;
    DetachedBackup::start("a", one.work());
    DetachedBackup::start("b", two.work());
    one.awaitBegin();
    two.awaitBegin();
    EXPECT_EQ(DetachedBackup::running(), 2U);
    one.release();
    two.release();
    ASSERT_TRUE(DetachedBackup::waitForAll(patience));
}

TEST(DetachedBackup, NeverTwoOfAFamilyAtOnce) {
    std::atomic<int> inside{0};
    std::atomic<int> most{0};
    std::atomic<int> runs{0};
    std::vector<std::thread> starters;
    for (int thread = 0; thread < 4; ++thread) {
        starters.emplace_back([&] {
            for (int i = 0; i < 500; ++i) {
                DetachedBackup::start("a", [&] {
                    most = std::max(most.load(), ++inside);
                    ++runs;
                    --inside;
                });
            }
        });
    }
    for (std::thread& starter : starters) {
        starter.join();
    }
    ASSERT_TRUE(DetachedBackup::waitForAll(patience));
    EXPECT_EQ(most, 1);
    EXPECT_GE(runs, 1);
}

TEST(DetachedBackup, ExceptionsEndTheRunAndAreLogged) {
    CapturingLogger log;
    DetachedBackup::start("tuples", [] { throw Exception("write", Exception::failure).stringParameter("disk full"); });
    ASSERT_TRUE(DetachedBackup::waitForAll(patience));
    DetachedBackup::start("tuples", [] { throw std::runtime_error("no memory"); });
    ASSERT_TRUE(DetachedBackup::waitForAll(patience));
    DetachedBackup::start("tuples", [] { throw 7; });
    ASSERT_TRUE(DetachedBackup::waitForAll(patience));
    EXPECT_THAT(log.notes(), ElementsAre("backup of tuples: write (code 4): disk full", "backup of tuples: no memory",
                                         "backup of tuples: an unknown exception"));
}

// Whoever waits for all backups, and so keeps new ones from being decided for, sees what was decided before.
TEST(DetachedBackup, OneThatIsBeingDecidedIsWaitedFor) {
    auto decision = std::make_unique<DetachedBackup::Decision>();
    EXPECT_FALSE(DetachedBackup::waitForAll(std::chrono::milliseconds(0)));
    bool done = false;
    DetachedBackup::start("a", [&done] { done = true; });
    std::thread deciding([&decision] { decision.reset(); });
    EXPECT_TRUE(DetachedBackup::waitForAll(CapturingLogger::patience));
    EXPECT_TRUE(done);
    deciding.join();
}

} // namespace
} // namespace Vellum
