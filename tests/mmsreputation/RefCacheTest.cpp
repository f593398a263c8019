#include "mmsreputation/RefCache.h"

#include "foundation/Exception.h"
#include "tests/support/CapturingLogger.h"
#include "tests/support/EndpointConfiguration.h"
#include "tests/support/EndpointEntries.h"
#include "tests/support/OwnProcess.h"

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <latch>
#include <thread>

namespace Vellum::MMSReputation {
namespace {

using Numbers = std::set<MSISDN>;

// Fills what is asked for with the subscribers `exempt`, `blacklisted` and `entry`.
struct Source : EntrySource {
    unsigned int exempt = 1, blacklisted = 2, entry = 3;
    unsigned int asked = 0;
    int reads = 0;
    std::function<void()> meanwhile;

    void read(RefCache& target, unsigned int what) override {
        ++reads;
        asked = what;
        if (meanwhile) {
            meanwhile();
        }
        if ((what & Select::exemptList) != 0) {
            target->exempt(subscriber(exempt));
        }
        if ((what & Select::blacklist) != 0) {
            target->blacklist(subscriber(blacklisted));
        }
        if ((what & Select::entries) != 0) {
            target->find(subscriber(entry), 0, true);
        }
    }
};

Source sourceOf(unsigned int first) {
    Source source;
    source.exempt = first;
    source.blacklisted = first + 1;
    source.entry = first + 2;
    return source;
}

RefCache load(unsigned int first, unsigned int what) {
    Source source = sourceOf(first);
    RefCache cache = RefCache::instance(&source, what);
    EXPECT_EQ(source.asked, what);
    EXPECT_EQ(source.reads, 1);
    return cache;
}

Numbers exemptOf(RefCache const& cache) {
    Numbers numbers;
    cache->exempt(numbers);
    return numbers;
}
Numbers blacklistOf(RefCache const& cache) {
    Numbers numbers;
    cache->blacklist(numbers);
    return numbers;
}

TEST(EndpointRefCache, EmptyHandleIsToldAndThrowsWhenUsed) {
    RefCache const none(false);
    EXPECT_TRUE(none.isNull());
    EXPECT_FALSE(static_cast<bool>(none));
    try {
        none->maxSize();
        FAIL() << "not refused";
    } catch (Exception const& thrown) {
        EXPECT_EQ(thrown.code(), 1);
        EXPECT_EQ(thrown.where(), "RefCache::operator->");
    }
    RefCache const made(true);
    EXPECT_TRUE(static_cast<bool>(made));
    EXPECT_FALSE(made == RefCache(true));
    RefCache const copy = made;
    EXPECT_TRUE(copy == made);
}

TEST(EndpointRefCacheDeathTest, NothingLoadedIsAnEmptyHandleAfterTwentyWaits) {
    expectInOwnProcess([] {
        CapturingLogger log;
        auto const start = std::chrono::steady_clock::now();
        EXPECT_TRUE(RefCache::instance(nullptr, 255).isNull());
        EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(20 * 3));
        ASSERT_EQ(log.lines().size(), 1U);
        auto const record = log.lines()[0];
        EXPECT_EQ(record.code, 0x3000165U);
        EXPECT_EQ(record.level, 0);
        EXPECT_EQ(record.format, "%s");
        EXPECT_EQ(record.text, " ");
        EXPECT_TRUE(RefCache::instance(nullptr, 0).isNull()) << "every time";
        EXPECT_EQ(log.lines().size(), 2U);
    });
}

TEST(EndpointRefCacheDeathTest, LoadEndsTheWait) {
    expectInOwnProcess([] {
        CapturingLogger log;
        // One that asks again and again sees the cache sooner or later, whatever the threads' luck.
        RefCache seen(false);
        std::thread waiting([&seen] {
            while (seen.isNull()) {
                seen = RefCache::instance(nullptr, 255);
            }
        });
        RefCache const cache = load(1, 255);
        waiting.join();
        EXPECT_TRUE(seen == cache);
        EXPECT_TRUE(RefCache::instance(nullptr, 1) == cache) << "the selector matters to loads only";
    });
}

TEST(EndpointRefCacheDeathTest, FirstLoadOfAListInstallsTheFreshCache) {
    for (unsigned int const what : {1U, 2U, 3U}) {
        SCOPED_TRACE(what);
        expectInOwnProcess([what] {
            CapturingLogger log;
            RefCache const cache = load(1, what);
            EXPECT_TRUE(RefCache::instance(nullptr, 255) == cache);
            EXPECT_EQ(exemptOf(cache), (what & 1) != 0 ? Numbers{subscriber(1)} : Numbers{});
            EXPECT_EQ(blacklistOf(cache), (what & 2) != 0 ? Numbers{subscriber(2)} : Numbers{});
            EXPECT_EQ(sizeOf(*cache), 0U);
            EXPECT_TRUE(log.lines().empty());
        });
    }
}

TEST(EndpointRefCacheDeathTest, SourceThatThrowsLeavesTheProcessUnloaded) {
    expectInOwnProcess([] {
        CapturingLogger log;
        Source source;
        source.meanwhile = [] {
            throw Exception("Source", 4);
        };
        EXPECT_THROW(RefCache::instance(&source, 255), Exception);
        EXPECT_TRUE(RefCache::instance(nullptr, 255).isNull());
    });
}

TEST(EndpointRefCache, SelectorOneReplacesOnlyTheExemptList) {
    RefCache const before = load(10, 255);
    RefCache const after = load(20, 1);
    EXPECT_TRUE(after == before);
    EXPECT_EQ(exemptOf(after), Numbers{subscriber(20)});
    EXPECT_EQ(blacklistOf(after), Numbers{subscriber(11)});
    EXPECT_TRUE(holds(*after, subscriber(12)));
    EXPECT_EQ(sizeOf(*after), 1U);
}

TEST(EndpointRefCache, SelectorTwoReplacesOnlyTheBlacklist) {
    RefCache const before = load(10, 255);
    RefCache const after = load(20, 2);
    EXPECT_TRUE(after == before);
    EXPECT_EQ(exemptOf(after), Numbers{subscriber(10)});
    EXPECT_EQ(blacklistOf(after), Numbers{subscriber(21)});
    EXPECT_TRUE(holds(*after, subscriber(12)));
}

TEST(EndpointRefCache, SelectorThreeReplacesBothLists) {
    RefCache const before = load(10, 255);
    RefCache const after = load(20, 3);
    EXPECT_TRUE(after == before);
    EXPECT_EQ(exemptOf(after), Numbers{subscriber(20)});
    EXPECT_EQ(blacklistOf(after), Numbers{subscriber(21)});
    EXPECT_TRUE(holds(*after, subscriber(12)));
    EXPECT_FALSE(holds(*after, subscriber(22)));
}

TEST(EndpointRefCache, AnyOtherSelectorReplacesTheWholeCache) {
    for (unsigned int const what : {0U, 4U, 5U, 7U, 8U, 255U, 0xFFFFFFFFU}) {
        SCOPED_TRACE(what);
        RefCache const before = load(10, 255);
        RefCache const after = load(20, what);
        EXPECT_FALSE(after == before);
        EXPECT_TRUE(RefCache::instance(nullptr, 255) == after);
        EXPECT_EQ(exemptOf(after), (what & 1) != 0 ? Numbers{subscriber(20)} : Numbers{});
        EXPECT_EQ(blacklistOf(after), (what & 2) != 0 ? Numbers{subscriber(21)} : Numbers{});
        EXPECT_EQ(holds(*after, subscriber(22)), (what & 4) != 0);
        EXPECT_FALSE(holds(*after, subscriber(12)));
        EXPECT_TRUE(holds(*before, subscriber(12))) << "lives on in its handle";
    }
}

TEST(EndpointRefCache, SourceThatThrowsLeavesTheCacheAsItWas) {
    RefCache const before = load(10, 255);
    Source source = sourceOf(20);
    source.meanwhile = [] {
        throw Exception("Source", 4);
    };
    EXPECT_THROW(RefCache::instance(&source, 255), Exception);
    EXPECT_THROW(RefCache::instance(&source, 3), Exception);
    EXPECT_TRUE(RefCache::instance(nullptr, 255) == before);
    EXPECT_EQ(exemptOf(before), Numbers{subscriber(10)});
    source.meanwhile = nullptr;
    EXPECT_TRUE(holds(*RefCache::instance(&source, 255), subscriber(22))) << "the lock is free again";
}

TEST(EndpointRefCache, ReadersDoNotWaitForALoad) {
    RefCache const before = load(10, 255);
    Source source = sourceOf(20);
    std::latch reading(1);
    std::latch done(1);
    source.meanwhile = [&] {
        reading.count_down();
        done.wait();
    };
    std::thread loader([&source] { RefCache::instance(&source, 255); });
    reading.wait();
    EXPECT_TRUE(RefCache::instance(nullptr, 255) == before);
    done.count_down();
    loader.join();
    EXPECT_TRUE(holds(*RefCache::instance(nullptr, 255), subscriber(22)));
}

TEST(EndpointRefCache, LoadersAndReadersMayRunTogether) {
    load(10, 255);
    std::vector<std::thread> threads;
    for (unsigned int t = 0; t < 2; ++t) {
        threads.emplace_back([t] {
            for (unsigned int i = 0; i < 200; ++i) {
                Source source = sourceOf(10 * t);
                RefCache::instance(&source, i % 5);
            }
        });
        threads.emplace_back([] {
            for (int i = 0; i < 2000; ++i) {
                RefCache const cache = RefCache::instance(nullptr, 255);
                EXPECT_LE(exemptOf(cache).size(), 1U);
                cache->isBlacklisted(subscriber(1));
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
}

} // namespace
} // namespace Vellum::MMSReputation
