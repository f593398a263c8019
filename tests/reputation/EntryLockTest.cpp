// Which operations of an entry wait for readers, and which for nobody.
#include "reputation/ReputationEntry.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <thread>

namespace Vellum::Reputation {
namespace {

using Record = Entry::Record;
using Type = Entry::AttributeType;

constexpr unsigned int period = 477000;
constexpr long now = period * 3600L;

class EntryLock : public testing::Test {
  protected:
    EntryLock() {
        m_entry->add(period, Record(4, 3, 2, 1, 0));
        m_entry->add(period - 11, Record(4, 3, 2, 1, 0));
    }

    // Whether it waits while another thread reads.
    static bool waitsForReaders(std::function<void()> const& operation) {
        std::atomic<bool> done{false};
        bool waited = false;
        std::thread doing;
        {
            SharedLock const hold(Entry::s_lock);
            doing = std::thread([&] {
                operation();
                done = true;
            });
            while (!done && !Entry::s_lock.isClaimed()) {
                std::this_thread::yield();
            }
            waited = !done;
        }
        doing.join();
        return waited;
    }
    // Ends only when it does not wait for a writer.
    static void whileAnotherWrites(std::function<void()> const& operation) {
        ExclusiveLock const hold(Entry::s_lock);
        std::thread(operation).join();
    }

    RefEntry m_entry{true};
};

TEST_F(EntryLock, ChangesWaitForReaders) {
    EXPECT_TRUE(waitsForReaders([&] { m_entry->state(ReputationState::trusted); }));
    EXPECT_TRUE(waitsForReaders([&] { m_entry->add(period, Record(5, 4, 3, 2, 1)); }));
    EXPECT_TRUE(waitsForReaders([&] { m_entry->increment(Type::Spam, period, 1); }));
    EXPECT_TRUE(waitsForReaders([&] { m_entry->decrement(Type::Spam, period, 1); }));
    EXPECT_TRUE(waitsForReaders([&] { m_entry->decrement(Type::Spam, period + 1, 1); })) << "there is no such record";
    EXPECT_EQ(m_entry->state(), ReputationState::trusted);
    EXPECT_EQ(m_entry->messageCount(now), 5U);
}

TEST_F(EntryLock, ScoreWaitsForReadersOnlyWhenThereAreOldRecordsToDrop) {
    EXPECT_FALSE(waitsForReaders([&] { m_entry->scoreAndDrop(now); })) << "the oldest of twelve hours";
    EXPECT_TRUE(waitsForReaders([&] { m_entry->scoreAndDrop(now + 3600); })) << "the thirteenth";
    EXPECT_FALSE(waitsForReaders([&] { m_entry->scoreAndDrop(now + 3600); })) << "it is gone";
}

TEST_F(EntryLock, ReadersDoNotWaitForEachOther) {
    EXPECT_FALSE(waitsForReaders([&] { m_entry->messageCount(now); }));
    EXPECT_FALSE(waitsForReaders([&] { m_entry->lastModified(); }));
    EXPECT_FALSE(waitsForReaders([&] { m_entry->state(); }));
}

TEST_F(EntryLock, StateAndLastChangeAreReadWhileAnotherWrites) {
    whileAnotherWrites([&] { EXPECT_EQ(m_entry->state(), ReputationState::unset); });
    whileAnotherWrites([&] { EXPECT_EQ(m_entry->lastModified(), now); });
}

} // namespace
} // namespace Vellum::Reputation
