#include "foundation/ipc/Workers.h"

#include "tests/ipc/TestDispatcher.h"

#include <atomic>
#include <gtest/gtest.h>
#include <set>

namespace Vellum::IPC {

TEST(Workers, TasksThatWaitDoNotHoldUpOthersWithinTheBound) {
    Workers workers("test", 3);
    Event release;
    Event third;
    workers.submit([&] { release.wait(); });
    workers.submit([&] { release.wait(); });
    workers.submit([&] { third.happen(); });
    third.wait();
    release.happen();
    workers.stop();
}

TEST(Workers, NeverMoreThanTheBoundAtOnce) {
    std::atomic<int> now{0};
    std::atomic<int> most{0};
    std::atomic<int> done{0};
    Event all;
    Workers workers("test", 2);
    for (int i = 0; i < 500; ++i) {
        workers.submit([&] {
            int const running = ++now;
            int seen = most;
            while (running > seen && !most.compare_exchange_weak(seen, running)) {
            }
            std::this_thread::yield();
            --now;
            if (++done == 500) {
                all.happen();
            }
        });
    }
    all.wait();
    workers.stop();
    EXPECT_LE(most, 2);
}

TEST(Workers, TasksBeginInTheirOrder) {
    std::vector<int> order;
    Event done;
    Workers workers("test", 1);
    for (int i = 0; i < 100; ++i) {
        workers.submit([&, i] {
            order.push_back(i);
            if (i == 99) {
                done.happen();
            }
        });
    }
    done.wait();
    workers.stop();
    for (int i = 0; i < 100; ++i) {
        EXPECT_EQ(order[static_cast<std::size_t>(i)], i);
    }
}

TEST(Workers, StopWaitsForTheTaskInHandAndDropsTheRest) {
    Event begun;
    Event release;
    std::atomic<int> ran{0};
    Workers workers("test", 1);
    workers.submit([&] {
        begun.happen();
        release.wait();
        ++ran;
    });
    workers.submit([&] { ++ran; });
    begun.wait();
    std::thread releasing([&] { release.happen(); });
    workers.stop();
    releasing.join();
    workers.submit([&] { ++ran; });
    EXPECT_GE(ran, 1);
    EXPECT_LE(ran, 2) << "the second may have begun before stop(), the third never";
}

} // namespace Vellum::IPC
