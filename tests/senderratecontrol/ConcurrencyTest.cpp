// Everything at once, for the thread sanitizer: both listings, increments, totals, eviction.
#include "senderratecontrol/SenderRateControlDisplay.h"
#include "tests/support/RateControl.h"
#include "tests/support/ScriptedSocket.h"

#include <gtest/gtest.h>

#include <atomic>
#include <ctime>
#include <functional>
#include <thread>
#include <vector>

namespace Vellum::SenderRateControl {
namespace {

constexpr unsigned int senders = 8;
constexpr unsigned int turns = 300;

class RateConcurrency : public ProcessCache {
  protected:
    // Runs each of these on two threads, `turns` times.
    static void together(std::vector<std::function<void(unsigned int turn)>> const& works) {
        std::atomic<unsigned int> ready{0};
        std::vector<std::thread> threads;
        auto const all = static_cast<unsigned int>(works.size() * 2);
        for (unsigned int n = 0; n < all; ++n) {
            threads.emplace_back([&, n] {
                ++ready;
                while (ready < all) {
                    std::this_thread::yield();
                }
                for (unsigned int turn = 0; turn < turns; ++turn) {
                    works[n / 2](turn);
                }
            });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
    }
    static unsigned int current() { return static_cast<unsigned int>(std::time(nullptr) / 300); }
};

TEST_F(RateConcurrency, ListingsIncrementsAndTotalsAgree) {
    std::vector<RefEntry> entries;
    for (unsigned int n = 0; n < senders; ++n) {
        entries.push_back(m_cache.entryOf(sender(n)));
    }
    std::atomic<unsigned int> failures{0};
    together({
        [&](unsigned int turn) { // counts now, and in periods that every total erases again
            RefEntry const& entry = entries[turn % senders];
            entry->increment(Entry::Attribute1, current(), 1);
            entry->increment(Entry::Attribute2, turn % 50, 1);
            entry->add(50 + turn % 50, {1, 1, 1, 1, 1});
        },
        [&](unsigned int turn) {
            SenderRateControlRecord out{};
            entries[turn % senders]->totals(std::time(nullptr), out);
            failures += out.count2 != 0 ? 1 : 0;
        },
        [&](unsigned int) {
            ScriptedClient client;
            failures += EntryHandler().task(client.connection, IPC::Pdu(28, 0U)) != 0 ? 1 : 0;
            failures += client.socket.sent.size() != 12 + senders * 312 + 8 ? 1 : 0;
        },
        [&](unsigned int turn) {
            ScriptedClient client;
            std::string const of = sender(turn % senders).address();
            IPC::Pdu const request(30, Buffer(of.data(), static_cast<unsigned int>(of.size()), true));
            failures += RecordHandler().task(client.connection, request) != 0 ? 1 : 0;
            failures += client.socket.sent.size() % 36 != 8 ? 1 : 0;
        },
        [&](unsigned int turn) {
            Entry& entry = *entries[turn % senders];
            entry.state(RateControlState::blocked);
            entry.blockedUntil(turn);
            entry.blockedReason(Entry::Attribute1);
            entry.reset();
            failures += entry.firstPeriod() > entry.lastPeriod() + turns ? 1 : 0;
            failures += entry.blockedUntil() >= turns ? 1 : 0;
        },
    });
    EXPECT_EQ(failures, 0U);
    std::uint32_t counted = 0;
    for (RefEntry const& entry : entries) {
        SenderRateControlRecord out{};
        entry->totals(std::time(nullptr), out);
        counted += out.count1;
    }
    EXPECT_EQ(counted, 2 * turns);
}

TEST_F(RateConcurrency, EntriesStayWithThoseWhoHoldThemWhileOthersEvict) {
    InstalledConfiguration const small(4);
    Cache cache;
    together({
        [&](unsigned int turn) { cache.entryOf(sender(turn % 16))->increment(Entry::Attribute1, turn, 1); },
        [&](unsigned int turn) { cache.entryOf(sender(turn % 7))->increment(Entry::Attribute1, turn, 1); },
        [&](unsigned int turn) { cache.remove(sender(turn % 16)); },
    });
    EXPECT_LE(sizeOf(cache), 4U);
}

// However many threads meet a sender first, what they count is in one entry.
TEST_F(RateConcurrency, NothingIsLostWhereNewSendersAreMetTogether) {
    together({[&](unsigned int turn) { m_cache.entryOf(sender(turn))->increment(Entry::Attribute1, 1, 1); },
              [&](unsigned int turn) {
                  m_cache.entryOf(sender(turn))->increment(Entry::Attribute1, 1, 1);
              }});
    for (unsigned int n = 0; n < turns; ++n) {
        ASSERT_EQ(held(m_cache, sender(n))->records().at(1).count1, 4U);
    }
}

} // namespace
} // namespace Vellum::SenderRateControl
