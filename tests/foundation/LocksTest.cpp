#include "foundation/Locks.h"

#include <atomic>
#include <chrono>
#include <gtest/gtest.h>
#include <thread>
#include <vector>

namespace Vellum {
namespace {

TEST(Mutex, SynchronizedExcludesOthers) {
    Mutex mutex;
    long count = 0;
    auto const work = [&] {
        for (int i = 0; i < 10000; ++i) {
            Synchronized const holding(mutex);
            ++count;
        }
    };
    std::thread first(work);
    std::thread second(work);
    first.join();
    second.join();
    EXPECT_EQ(count, 20000);
}

TEST(Mutex, TryLockFailsWhileHeld) {
    Mutex mutex;
    bool taken = false;
    {
        Synchronized const holding(mutex);
        std::thread([&] {
            if (mutex.try_lock()) {
                taken = true;
                mutex.unlock();
            }
        }).join();
    }
    EXPECT_FALSE(taken);
}

TEST(Semaphore, NeverGivesMoreThanItHas) {
    Semaphore semaphore(3);
    std::atomic<int> inside{0};
    std::atomic<int> most{0};
    auto const work = [&](int units) {
        for (int i = 0; i < 500; ++i) {
            AutoSemaphore const holding(semaphore, units);
            int const now = inside.fetch_add(units) + units;
            for (int seen = most; seen < now && !most.compare_exchange_weak(seen, now);) {
            }
            std::this_thread::yield();
            inside.fetch_sub(units);
        }
    };
    std::vector<std::thread> threads;
    for (int const units : {1, 1, 2, 3}) {
        threads.emplace_back(work, units);
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_LE(most, 3);
    EXPECT_EQ(inside, 0);
    semaphore.acquire(3); // all units are back, or this would wait for ever
}

TEST(Semaphore, WaiterGoesOnceEnoughUnitsAreBack) {
    Semaphore semaphore(0);
    std::atomic<bool> through{false};
    std::thread waiter([&] {
        semaphore.acquire(2);
        through = true;
    });
    semaphore.release(1);
    EXPECT_FALSE(through);
    semaphore.release(1);
    waiter.join();
    EXPECT_TRUE(through);
}

TEST(AutoSemaphore, CountBelowOneTakesNothing) {
    Semaphore semaphore(0);
    AutoSemaphore const none(semaphore, 0);
    AutoSemaphore const negative(semaphore, -1);
    SUCCEED() << "neither waited";
}

TEST(SleepFor, SleepsAtLeastTheTimeGiven) {
    auto const start = std::chrono::steady_clock::now();
    sleepFor(0, 3);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(3));
    sleepFor(0, 0);
}

} // namespace
} // namespace Vellum
