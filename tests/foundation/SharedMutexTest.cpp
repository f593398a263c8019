#include "foundation/SharedMutex.h"

#include <atomic>
#include <fstream>
#include <future>
#include <gtest/gtest.h>
#include <random>
#include <string>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace Vellum {
namespace {

enum class Mode { shared, upgrade, promoted, exclusive };

void take(SharedMutex& mutex, Mode mode) VELLUM_NO_THREAD_SAFETY_ANALYSIS {
    switch (mode) {
    case Mode::shared:
        return mutex.lockShared();
    case Mode::upgrade:
        return mutex.lockUpgrade();
    case Mode::promoted:
        mutex.lockUpgrade();
        return mutex.promote();
    case Mode::exclusive:
        return mutex.lock();
    }
}

void leave(SharedMutex& mutex, Mode mode) VELLUM_NO_THREAD_SAFETY_ANALYSIS {
    switch (mode) {
    case Mode::shared:
        return mutex.unlockShared();
    case Mode::upgrade:
        return mutex.unlockUpgrade();
    case Mode::promoted:
        mutex.demote();
        return mutex.unlockUpgrade();
    case Mode::exclusive:
        return mutex.unlock();
    }
}

// Whether a thread of this process waits in the system call that every lock sleeps in.
bool sleepsInTheKernel(pid_t thread) {
    std::ifstream file("/proc/self/task/" + std::to_string(thread) + "/syscall");
    long call = -1;
    return file >> call && call == SYS_futex;
}

// Gives other threads every opportunity to do what they should not. A correct lock passes however this turns out.
void letOthersRun() {
    for (int i = 0; i < 2000; ++i) {
        std::this_thread::yield();
    }
}

// A thread that takes `mutex` in `mode`, keeps it until told, and leaves.
class Holder {
  public:
    Holder(SharedMutex& mutex, Mode mode)
        : m_thread([this, &mutex, mode] {
              m_started = true;
              take(mutex, mode);
              m_holds = true;
              m_holds.notify_all();
              m_leave.wait(false);
              leave(mutex, mode);
          }) {}
    ~Holder() { release(); }
    Holder(Holder const&) = delete;
    Holder& operator=(Holder const&) = delete;

    void awaitStart() const {
        while (!m_started) {
            std::this_thread::yield();
        }
    }
    void awaitHold() const { m_holds.wait(false); }
    bool holds() const { return m_holds; }
    void release() {
        m_leave = true;
        m_leave.notify_all();
        if (m_thread.joinable()) {
            m_thread.join();
        }
    }

  private:
    std::atomic<bool> m_started{false};
    std::atomic<bool> m_holds{false};
    std::atomic<bool> m_leave{false};
    std::thread m_thread; // last: it uses the others
};

void expectBoth(Mode first, Mode second) {
    SharedMutex mutex;
    Holder const one(mutex, first);
    one.awaitHold();
    Holder const other(mutex, second);
    other.awaitHold(); // for ever, if they excluded each other
}

void expectExclusion(Mode first, Mode second) {
    SharedMutex mutex;
    Holder one(mutex, first);
    one.awaitHold();
    Holder const other(mutex, second);
    other.awaitStart();
    letOthersRun();
    EXPECT_FALSE(other.holds());
    one.release();
    other.awaitHold();
}

TEST(SharedMutex, SharedGoesWithSharedAndWithUpgrade) {
    expectBoth(Mode::shared, Mode::shared);
    expectBoth(Mode::shared, Mode::upgrade);
    expectBoth(Mode::upgrade, Mode::shared);
}

TEST(SharedMutex, SharedExcludesExclusive) {
    expectExclusion(Mode::shared, Mode::exclusive);
    expectExclusion(Mode::shared, Mode::promoted);
    expectExclusion(Mode::exclusive, Mode::shared);
    expectExclusion(Mode::promoted, Mode::shared);
}

TEST(SharedMutex, UpgradeExcludesUpgradeAndExclusive) {
    expectExclusion(Mode::upgrade, Mode::upgrade);
    expectExclusion(Mode::upgrade, Mode::promoted);
    expectExclusion(Mode::upgrade, Mode::exclusive);
    expectExclusion(Mode::promoted, Mode::upgrade);
    expectExclusion(Mode::exclusive, Mode::upgrade);
}

TEST(SharedMutex, ExclusiveExcludesExclusive) {
    expectExclusion(Mode::exclusive, Mode::exclusive);
    expectExclusion(Mode::exclusive, Mode::promoted);
    expectExclusion(Mode::promoted, Mode::exclusive);
    expectExclusion(Mode::promoted, Mode::promoted);
}

void awaitClaim(SharedMutex const& mutex) {
    while (!mutex.isClaimed()) {
        std::this_thread::yield();
    }
}

TEST(SharedMutex, NewSharedHoldersWaitBehindAWaitingWriter) {
    for (Mode const writer : {Mode::exclusive, Mode::promoted}) {
        SharedMutex mutex;
        Holder reader(mutex, Mode::shared);
        reader.awaitHold();
        Holder writing(mutex, writer);
        awaitClaim(mutex);
        EXPECT_FALSE(writing.holds());
        Holder const late(mutex, Mode::shared);
        late.awaitStart();
        letOthersRun();
        EXPECT_FALSE(late.holds()) << "the writer came first";
        reader.release();
        writing.awaitHold();
        letOthersRun();
        EXPECT_FALSE(late.holds());
        writing.release();
        late.awaitHold();
    }
}

TEST(SharedMutex, UpgradersGoOnBesideAWriterThatWaits) {
    SharedMutex mutex;
    Holder reader(mutex, Mode::shared);
    reader.awaitHold();
    Holder first(mutex, Mode::exclusive);
    awaitClaim(mutex);
    Holder second(mutex, Mode::exclusive);
    second.awaitStart();
    for (int i = 0; i < 3; ++i) {
        Holder const upgrader(mutex, Mode::upgrade);
        upgrader.awaitHold(); // for ever, if it waited behind the writers
        letOthersRun();
        EXPECT_FALSE(first.holds());
    }
    reader.release();
    first.release();
    second.release();
    Holder const late(mutex, Mode::shared);
    late.awaitHold();
}

// Whoever works in turn gets nowhere while somebody sleeps for the lock: that one holds it before the unlocking is
// over.
TEST(SharedMutex, WhoUnlocksInTurnLetsASleeperGoFirst) VELLUM_NO_THREAD_SAFETY_ANALYSIS {
    for (Mode const mode : {Mode::exclusive, Mode::upgrade}) {
        if (!std::ifstream("/proc/self/task/" + std::to_string(gettid()) + "/syscall").is_open()) {
            GTEST_SKIP() << "this system does not tell what a thread waits for";
        }
        SharedMutex mutex;
        mutex.lock();
        std::atomic<bool> hasHeld{false};
        std::atomic<pid_t> waiting{0};
        std::thread other([&]() VELLUM_NO_THREAD_SAFETY_ANALYSIS {
            waiting = gettid();
            take(mutex, mode);
            hasHeld = true;
            leave(mutex, mode);
        });
        while (waiting == 0 || !sleepsInTheKernel(waiting)) {
            std::this_thread::yield();
        }
        mutex.unlockInTurn();
        mutex.lock();
        EXPECT_TRUE(hasHeld);
        mutex.unlock();
        other.join();
    }
}

TEST(SharedMutex, WhoUnlocksInTurnWithoutSleepersGoesOn) {
    SharedMutex mutex;
    for (int i = 0; i < 3; ++i) {
        TurnLock const hold(mutex);
        EXPECT_TRUE(mutex.isClaimed());
    }
    EXPECT_FALSE(mutex.isClaimed());
    UpgradeLock const hold(mutex); // is free
}

// For ever, if a thread that takes the lock again and again kept the other one out.
TEST(SharedMutex, NobodyIsKeptOutByOneWhoComesBackAtOnce) {
    SharedMutex mutex;
    std::atomic<bool> over{false};
    std::vector<std::thread> greedy;
    for (int i = 0; i < 2; ++i) {
        greedy.emplace_back([&] {
            while (!over) {
                ExclusiveLock const hold(mutex);
                for (int spin = 0; spin < 1000; ++spin) { // longer than others spin
                    static_cast<void>(over.load());
                }
            }
        });
    }
    for (int i = 0; i < 200; ++i) {
        UpgradeLock const hold(mutex);
    }
    over = true;
    for (std::thread& thread : greedy) {
        thread.join();
    }
}

TEST(SharedMutex, PromotionIsGivenUpWhereReadersStay) VELLUM_NO_THREAD_SAFETY_ANALYSIS {
    SharedMutex mutex;
    Holder reader(mutex, Mode::shared);
    reader.awaitHold();
    mutex.lockUpgrade();
    EXPECT_FALSE(mutex.tryPromote());
    EXPECT_FALSE(mutex.isClaimed());
    {
        Holder const other(mutex, Mode::shared);
        other.awaitHold();
    }
    Holder writer(mutex, Mode::exclusive);
    writer.awaitStart();
    letOthersRun();
    EXPECT_FALSE(writer.holds()) << "it is still in upgrade mode";
    reader.release();
    EXPECT_TRUE(mutex.tryPromote());
    mutex.demote();
    mutex.unlockUpgrade();
    writer.awaitHold();
}

TEST(SharedMutex, PromotionAndAWaitingWriterDoNotMeet) VELLUM_NO_THREAD_SAFETY_ANALYSIS {
    SharedMutex mutex;
    Holder reader(mutex, Mode::shared);
    reader.awaitHold();
    Holder writer(mutex, Mode::exclusive);
    awaitClaim(mutex);
    mutex.lockUpgrade();
    reader.release();
    mutex.promote(); // the writer waits without the gate
    letOthersRun();
    EXPECT_FALSE(writer.holds());
    mutex.demote();
    mutex.unlockUpgrade();
    writer.awaitHold();
    writer.release();
    Holder const late(mutex, Mode::shared);
    late.awaitHold();
}

TEST(SharedMutex, NobodyComesBetweenUpgradeAndItsPromotion) VELLUM_NO_THREAD_SAFETY_ANALYSIS {
    SharedMutex mutex;
    int value = 0;
    mutex.lockUpgrade();
    Holder reader(mutex, Mode::shared);
    reader.awaitHold();
    std::atomic<bool> started{false};
    std::thread rival([&]() VELLUM_NO_THREAD_SAFETY_ANALYSIS {
        started = true;
        mutex.lock();
        value = 2;
        mutex.unlock();
    });
    while (!started) {
        std::this_thread::yield();
    }
    letOthersRun(); // now the rival waits for the gate, longer than we do for the reader
    int const before = value;
    std::thread releaser([&] {
        awaitClaim(mutex);
        reader.release();
    });
    mutex.promote();
    EXPECT_EQ(value, before);
    value = 1;
    mutex.demote();
    mutex.unlockUpgrade();
    rival.join();
    releaser.join();
    EXPECT_EQ(before, 0);
    EXPECT_EQ(value, 2);
}

TEST(SharedMutex, DemotionLetsSharedHoldersInAndKeepsOthersOut) VELLUM_NO_THREAD_SAFETY_ANALYSIS {
    SharedMutex mutex;
    mutex.lockUpgrade();
    mutex.promote();
    EXPECT_TRUE(mutex.isClaimed());
    mutex.demote();
    EXPECT_FALSE(mutex.isClaimed());
    {
        Holder const reader(mutex, Mode::shared);
        reader.awaitHold();
    }
    Holder const writer(mutex, Mode::exclusive);
    writer.awaitStart();
    letOthersRun();
    EXPECT_FALSE(writer.holds());
    mutex.unlockUpgrade();
    writer.awaitHold();
}

TEST(SharedMutex, ManySleepersAreAllWoken) {
    for (int round = 0; round < 20; ++round) {
        SharedMutex mutex;
        Holder writer(mutex, Mode::exclusive);
        writer.awaitHold();
        std::vector<std::thread> sleepers;
        std::atomic<int> done{0};
        for (int i = 0; i < 6; ++i) {
            sleepers.emplace_back([&mutex, &done, i] {
                Mode const mode = i % 3 == 0 ? Mode::exclusive : i % 3 == 1 ? Mode::shared : Mode::promoted;
                take(mutex, mode);
                std::this_thread::yield();
                leave(mutex, mode);
                ++done;
            });
        }
        letOthersRun();
        EXPECT_EQ(done, 0);
        writer.release();
        for (std::thread& sleeper : sleepers) {
            sleeper.join();
        }
        EXPECT_EQ(done, 6);
    }
}

TEST(SharedLock, LeavesAtReleaseOrAtItsEnd) VELLUM_NO_THREAD_SAFETY_ANALYSIS {
    SharedMutex mutex;
    {
        SharedLock released(mutex);
        released.release();
        ExclusiveLock const writing(mutex);
        EXPECT_TRUE(mutex.isClaimed());
    }
    { SharedLock const reading(mutex); }
    ExclusiveLock const writing(mutex);
    EXPECT_TRUE(mutex.isClaimed());
}

TEST(UpgradeLock, LeavesPromotedOrNot) VELLUM_NO_THREAD_SAFETY_ANALYSIS {
    SharedMutex mutex;
    {
        UpgradeLock reading(mutex);
        EXPECT_FALSE(mutex.isClaimed());
        reading.promote();
        EXPECT_TRUE(mutex.isClaimed());
    }
    EXPECT_FALSE(mutex.isClaimed());
    { UpgradeLock const reading(mutex); }
    ExclusiveLock const writing(mutex);
    EXPECT_TRUE(mutex.isClaimed());
}

// What the modes protect, as the caches use them: `byUpgraders` changes in upgrade mode, `byWriters` in exclusive mode.
// Plain fields, so that the thread sanitizer sees every hold that does not exclude what it should. The counts of
// holders are relaxed, or they would order what only the lock may order.
struct Protected {
    class Count {
      public:
        int add(int n) { return m_value.fetch_add(n, std::memory_order_relaxed); } // what it was before
        int get() const { return m_value.load(std::memory_order_relaxed); }

      private:
        std::atomic<int> m_value{0};
    };

    long byUpgraders = 0;
    long byWriters = 0;
    long byWritersCopy = 0;
    Count readers;
    Count upgraders;
    Count writers;
};

class StressThread {
  public:
    StressThread(SharedMutex& mutex, Protected& data, unsigned int seed)
        : m_mutex(mutex), m_data(data), m_random(seed) {}

    void run(int holds) {
        for (int i = 0; i < holds; ++i) {
            auto const mode = static_cast<Mode>(m_random() % 4);
            // Mostly shorter than the spinning of those who wait, sometimes long enough that they sleep.
            bool const longHold = m_random() % 64 == 0;
            hold(mode, longHold);
        }
    }

    long upgrades = 0;
    long writes = 0;

  private:
    void hold(Mode mode, bool longHold) {
        if (mode == Mode::promoted) {
            return promote(longHold);
        }
        take(m_mutex, mode);
        if (mode == Mode::shared) {
            read(longHold);
        } else if (mode == Mode::upgrade) {
            upgrade(longHold);
        } else {
            write(longHold);
        }
        leave(m_mutex, mode);
    }
    void promote(bool longHold) VELLUM_NO_THREAD_SAFETY_ANALYSIS {
        m_mutex.lockUpgrade();
        long const upgradesBefore = m_data.byUpgraders;
        long const writesBefore = m_data.byWriters;
        m_mutex.promote();
        EXPECT_EQ(m_data.byUpgraders, upgradesBefore) << "somebody came between";
        EXPECT_EQ(m_data.byWriters, writesBefore);
        write(longHold);
        m_mutex.demote();
        upgrade(longHold);
        m_mutex.unlockUpgrade();
    }
    static void linger(bool longHold) {
        for (int i = 0; longHold && i < 50; ++i) {
            std::this_thread::yield();
        }
    }
    void read(bool longHold) {
        m_data.readers.add(1);
        linger(longHold);
        EXPECT_EQ(m_data.writers.get(), 0);
        EXPECT_EQ(m_data.byWriters, m_data.byWritersCopy);
        m_data.readers.add(-1);
    }
    void upgrade(bool longHold) {
        EXPECT_EQ(m_data.upgraders.add(1), 0);
        linger(longHold);
        EXPECT_EQ(m_data.writers.get(), 0);
        EXPECT_EQ(m_data.byWriters, m_data.byWritersCopy);
        ++m_data.byUpgraders;
        ++upgrades;
        m_data.upgraders.add(-1);
    }
    void write(bool longHold) {
        EXPECT_EQ(m_data.writers.add(1), 0);
        ++m_data.byWriters;
        linger(longHold);
        EXPECT_EQ(m_data.readers.get(), 0);
        EXPECT_EQ(m_data.upgraders.get(), 0);
        ++m_data.byWritersCopy;
        ++m_data.byUpgraders;
        ++writes;
        m_data.writers.add(-1);
    }

    SharedMutex& m_mutex;
    Protected& m_data;
    std::mt19937 m_random;
};

TEST(SharedMutex, RandomHoldsKeepWhatTheyProtect) {
    unsigned int const seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    SharedMutex mutex;
    Protected data;
    std::vector<StressThread> work;
    for (unsigned int i = 0; i < 6; ++i) {
        work.emplace_back(mutex, data, seed + i);
    }
    std::vector<std::thread> threads;
    for (StressThread& one : work) {
        threads.emplace_back([&one] { one.run(20000); });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    long upgrades = 0;
    long writes = 0;
    for (StressThread const& one : work) {
        upgrades += one.upgrades;
        writes += one.writes;
    }
    EXPECT_EQ(data.byWriters, writes);
    EXPECT_EQ(data.byWritersCopy, writes);
    EXPECT_EQ(data.byUpgraders, upgrades + writes);
}

TEST(SharedMutex, ReadersThatNeverPauseDoNotStarveAWriter) {
    SharedMutex mutex;
    std::atomic<bool> done{false};
    std::vector<std::thread> readers;
    for (int i = 0; i < 3; ++i) {
        readers.emplace_back([&] {
            while (!done) {
                SharedLock const reading(mutex);
                std::this_thread::yield();
            }
        });
    }
    for (int i = 0; i < 200; ++i) {
        ExclusiveLock const writing(mutex);
    }
    done = true;
    for (std::thread& reader : readers) {
        reader.join();
    }
}

} // namespace
} // namespace Vellum
