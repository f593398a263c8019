// Everything at once, for the thread sanitizer: increments, scores that drop old hours, lookups, removals, listings,
// and backups, beside reads that take no lock.
#include "reputation/BackupScript.h"
#include "reputation/ReputationDisplay.h"

#include "tests/support/RandomSource.h"
#include "tests/support/ReputationCache.h"
#include "tests/support/ScriptedSocket.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <sstream>
#include <thread>

namespace Vellum::Reputation {
namespace {

constexpr unsigned int addresses = 40;
constexpr long begin = 1'700'000'000;

struct Progress {
    std::atomic<bool> done{false};
    std::atomic<int> changes{0};
};

void changeAtRandom(Cache& cache, std::uint64_t seed, Progress& progress) {
    std::mt19937_64 random(seed);
    for (long now = begin; !progress.done; now += 60) {
        RefEntry const entry = cache.entry(ip(static_cast<unsigned int>(random() % addresses)));
        auto const period = static_cast<unsigned int>(now / 3600 - static_cast<long>(random() % 14));
        auto const type = static_cast<Entry::AttributeType>(random() % 10);
        switch (random() % 12) {
        case 0:
            entry->decrement(type, period, 3);
            break;
        case 1:
            entry->state(static_cast<ReputationState>(random() % 4));
            break;
        case 2:
            entry->add(period, Entry::Record(5, 5, 1, 1, 1));
            break;
        case 3:
        case 4:
            EXPECT_LE(entry->scoreAndDrop(now), 100U);
            break;
        case 5:
            entry->messageCount(now);
            break;
        case 6:
            cache.remove(ip(static_cast<unsigned int>(random() % addresses)));
            break;
        default:
            entry->increment(type, period, 5);
        }
        ++progress.changes;
    }
}

// Of the entries that the others work on at that moment: entries are removed and made anew all the time.
void readWithoutLocks(Cache& cache, Progress& progress) {
    for (unsigned int n = 0; !progress.done; n = (n + 1) % addresses) {
        RefEntry const entry = cache.entry(ip(n));
        EXPECT_GE(entry->lastModified(), 0);
        static_cast<void>(entry->state());
    }
}

// A loaded entry stores its last change when it is asked for the first time; listings ask at the same time.
void askForTheLastChange(Cache& cache, Progress& progress) {
    for (unsigned int n = 0; !progress.done; n = (n + 1) % addresses) {
        RefEntry const entry = cache.entry(ip(addresses + n));
        entry->add(begin / 3600, {1, 1, 0, 0, 0});
        EXPECT_EQ(entry->lastModified(), begin / 3600 * 3600);
        cache.remove(ip(addresses + n));
    }
}

TEST(ReputationConcurrency, ListingsAndScriptsAreWholeWhileEverythingChanges) {
    CapturingLogger const log;
    RandomSource random;
    Cache& cache = **RefCache::instance();
    cache.clear();
    Progress progress;
    std::vector<std::thread> threads;
    for (int n = 0; n < 2; ++n) {
        threads.emplace_back(changeAtRandom, std::ref(cache), random.any(), std::ref(progress));
    }
    threads.emplace_back(readWithoutLocks, std::ref(cache), std::ref(progress));
    threads.emplace_back(askForTheLastChange, std::ref(cache), std::ref(progress));
    for (int n = 0; n < 100 || progress.changes < 20000; ++n) {
        ScriptedClient client;
        ASSERT_EQ(EntryHandler().task(client.connection, IPC::Pdu(10, 0U)), 0);
        std::uint32_t count = 0;
        std::memcpy(&count, client.socket.sent.data() + 8, sizeof count);
        ASSERT_EQ(client.socket.sent.size(), 12U + 48U * count + 8U);
        ip_addr_t const wanted = ip(1).asIpAddr();
        ScriptedClient hours;
        ASSERT_EQ(RecordHandler().task(hours.connection, IPC::Pdu(26, Buffer(&wanted, sizeof wanted, true))), 0);
        std::ostringstream out;
        BackupSnapshot(cache).write(out);
        ASSERT_TRUE(out.str().ends_with("\nUNLOCK TABLES;\n"));
    }
    progress.done = true;
    for (std::thread& thread : threads) {
        thread.join();
    }
    cache.clear();
}

} // namespace
} // namespace Vellum::Reputation
