#include "greylist/TupleCache.h"

#include "foundation/Exception.h"
#include "greylist/LogCodes.h"
#include "tests/support/CapturingLogger.h"
#include "tests/support/GreylistConfiguration.h"
#include "tests/support/GreylistIdentities.h"
#include "tests/support/OwnProcess.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

namespace Vellum::GreyList {
namespace {

bool holds(_TupleCache const& cache, TupleId const& id) {
    SharedLock const hold(cache.lock);
    return cache.lookup(id) != cache.end();
}

std::uint32_t sizeOf(_TupleCache const& cache) {
    SharedLock const hold(cache.lock);
    return cache.sizeNoLock();
}

TEST(TupleCacheDeathTest, WithoutAConfigurationNoneIsMadeAndTheNextCallTriesAgain) {
    expectInOwnProcess([] {
        CapturingLogger log;
        for (int attempt = 0; attempt < 2; ++attempt) {
            try {
                TupleCache::instance();
                ADD_FAILURE() << "made";
            } catch (Exception const& refused) {
                EXPECT_EQ(refused.where(), "operator->");
                EXPECT_EQ(refused.code(), 1);
                EXPECT_EQ(refused.line(), 359U);
            }
        }
        EXPECT_TRUE(log.lines().empty());

        InstalledConfiguration const configuration(17);
        TupleCache* const made = TupleCache::instance();
        EXPECT_EQ((*made)->maxSize(), 17U);
        configuration->records = 18;
        EXPECT_EQ(TupleCache::instance(false), made) << "whatever the flag";
        EXPECT_EQ(TupleCache::instance(true), made);
        EXPECT_EQ((*made)->maxSize(), 17U);
        EXPECT_EQ(log.lines().size(), 1U) << "made once";
    });
}

TEST(TupleCacheDeathTest, ManyFirstCallsMakeOneCache) {
    expectInOwnProcess([] {
        CapturingLogger log;
        InstalledConfiguration const configuration(3);
        std::vector<TupleCache*> seen(8);
        std::vector<std::thread> callers;
        for (TupleCache*& place : seen) {
            callers.emplace_back([&place] { place = TupleCache::instance(); });
        }
        for (auto& caller : callers) {
            caller.join();
        }
        EXPECT_EQ(seen, std::vector<TupleCache*>(8, seen.front()));
        EXPECT_EQ(log.records().size(), 1U);
    });
}

TEST(TupleCache, CreationIsLoggedWithTheConfiguredRecords) {
    CapturingLogger log;
    InstalledConfiguration const configuration(4711);
    _TupleCache const cache;
    ASSERT_EQ(log.lines().size(), 1U);
    CapturingLogger::Line const record = log.lines().front();
    EXPECT_TRUE(record.isRecord);
    EXPECT_EQ(record.code, 0x300018BU);
    EXPECT_EQ(record.level, 0);
    EXPECT_EQ(record.format, "%d");
    EXPECT_EQ(record.fields, std::vector<std::string>{"4711"});
}

TEST(TupleCache, CapacityIsReadOnceFromTheConfiguration) {
    CapturingLogger log;
    InstalledConfiguration const configuration(2);
    _TupleCache cache;
    configuration->records = 100;
    for (unsigned int n = 0; n < 5; ++n) {
        cache.state(tuple(n), 1000);
    }
    EXPECT_EQ(cache.maxSize(), 2U);
    EXPECT_EQ(sizeOf(cache), 2U);
}

TEST(TupleCache, NegativeRecordsMakeACacheThatStaysEmpty) {
    CapturingLogger log;
    InstalledConfiguration const configuration(-5);
    _TupleCache cache;
    EXPECT_EQ(cache.maxSize(), 0U);
    EXPECT_EQ(cache.state(tuple(1), 1000), 0);
    EXPECT_EQ(cache.state(tuple(1), 1000 + 300), 0) << "it was forgotten at once";
    EXPECT_EQ(sizeOf(cache), 0U);
    EXPECT_EQ(log.records(0x300018B).at(0).text, "-5");
}

TEST(TupleCache, NewTupleEvictsTheOneAddedFirst) {
    CapturingLogger log;
    InstalledConfiguration const configuration(2);
    _TupleCache cache;
    cache.state(tuple(1), 1000);
    cache.state(tuple(2), 1000);
    cache.state(tuple(3), 1000);
    EXPECT_FALSE(holds(cache, tuple(1)));
    EXPECT_TRUE(holds(cache, tuple(2)));
    EXPECT_TRUE(holds(cache, tuple(3)));
}

TEST(TupleCache, DecisionDoesNotProtectFromEviction) {
    CapturingLogger log;
    InstalledConfiguration const configuration(2);
    _TupleCache cache;
    cache.state(tuple(1), 1000);
    cache.state(tuple(2), 1000);
    EXPECT_EQ(cache.state(tuple(1), 1000 + 1), 0) << "too early";
    EXPECT_EQ(cache.state(tuple(1), 1000 + 300), 1) << "passes";
    EXPECT_EQ(cache.state(tuple(2), 1000 + 300), 1);
    cache.state(tuple(3), 1000 + 300);
    EXPECT_FALSE(holds(cache, tuple(1)));
    EXPECT_TRUE(holds(cache, tuple(2)));
}

TEST(TupleCache, RestartDoesNotProtectFromEviction) {
    CapturingLogger log;
    InstalledConfiguration const configuration(2);
    _TupleCache cache;
    cache.state(tuple(1), 1000);
    cache.state(tuple(2), 1000);
    cache.state(tuple(1), 1000000);
    cache.state(tuple(3), 1000000);
    EXPECT_FALSE(holds(cache, tuple(1)));
}

TEST(TupleCache, FindProtectsFromEviction) {
    CapturingLogger log;
    InstalledConfiguration const configuration(2);
    _TupleCache cache;
    cache.state(tuple(1), 1000);
    cache.state(tuple(2), 1000);
    EXPECT_TRUE(cache.find(tuple(1)) != cache.end());
    cache.state(tuple(3), 1000);
    EXPECT_TRUE(holds(cache, tuple(1)));
    EXPECT_FALSE(holds(cache, tuple(2)));
}

TEST(TupleCache, AddLeavesAPresentRecordAsItIs) {
    CapturingLogger log;
    InstalledConfiguration const configuration(2);
    _TupleCache cache;
    cache.state(tuple(1), 1000);
    cache.add(tuple(1), Status(5, 6, 7));
    EXPECT_EQ(cache.find(tuple(1))->second.firstSeen, 1000);
}

TEST(TupleCache, RemovedAndClearedTuplesAreNewAgain) {
    CapturingLogger log;
    InstalledConfiguration const configuration(10);
    _TupleCache cache;
    cache.state(tuple(1), 1000);
    cache.state(tuple(2), 1000);
    cache.remove(tuple(1));
    EXPECT_EQ(cache.state(tuple(1), 1000 + 300), 0);
    EXPECT_EQ(cache.state(tuple(2), 1000 + 300), 1);
    cache.clear();
    EXPECT_EQ(sizeOf(cache), 0U);
    EXPECT_EQ(cache.state(tuple(2), 1000 + 301), 0);
    EXPECT_EQ(cache.maxSize(), 10U);
}

TEST(TupleCache, KnownTuplesAreDecidedBesideASharedHolder) {
    CapturingLogger log;
    InstalledConfiguration const configuration(10);
    _TupleCache cache;
    cache.state(tuple(1), 1000);
    SharedLock const listing(cache.lock);
    EXPECT_EQ(cache.state(tuple(1), 1000 + 1), 0);
    EXPECT_EQ(cache.state(tuple(1), 1000 + 300), 1);
}

TEST(TupleCache, NewTupleWaitsForASharedHolder) {
    CapturingLogger log;
    InstalledConfiguration const configuration(10);
    _TupleCache cache;
    std::atomic<bool> decided{false};
    std::thread decision;
    {
        SharedLock const listing(cache.lock);
        decision = std::thread([&] {
            cache.state(tuple(1), 1000);
            decided = true;
        });
        while (!cache.lock.isClaimed()) {
            std::this_thread::yield();
        }
        EXPECT_FALSE(decided);
        EXPECT_EQ(cache.sizeNoLock(), 0U);
    }
    decision.join();
    EXPECT_TRUE(decided);
    EXPECT_TRUE(holds(cache, tuple(1)));
}

} // namespace
} // namespace Vellum::GreyList
