#include "reputation/Cache.h"

#include "tests/support/OwnProcess.h"
#include "tests/support/RandomSource.h"
#include "tests/support/ReputationCache.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <list>
#include <map>
#include <thread>

namespace Vellum::Reputation {
namespace {

class CacheTest : public ReputationCache {};

TEST_F(CacheTest, FirstFindMakesAnEmptyEntryAndTheSecondFindsIt) {
    Cache cache;
    RefEntry const first = cache.find(ip("192.0.2.1"))->second;
    EXPECT_TRUE(recordsOf(first).empty());
    EXPECT_EQ(first->state(), ReputationState::unset);
    EXPECT_EQ(first->score(), 0U);
    EXPECT_EQ(cache.find(ip("192.0.2.1"))->second, first);
    EXPECT_EQ(cache.entry(ip("192.0.2.1")), first);
    EXPECT_EQ(cache.find(ip("192.0.2.1"))->first, ip("192.0.2.1"));
    EXPECT_EQ(sizeOf(cache), 1U);
    EXPECT_FALSE(cache.entry(ip("192.0.2.2")) == first);
    EXPECT_EQ(sizeOf(cache), 2U);
}

TEST_F(CacheTest, HoldsTenThousandAndForgetsTheOneUnusedForLongest) {
    Cache cache;
    EXPECT_EQ(cache.maxSize(), 10000U);
    RefEntry const oldest = cache.entry(ip(0));
    RefEntry const second = cache.entry(ip(1));
    for (unsigned int n = 2; n < 10000; ++n) {
        cache.find(ip(n));
    }
    EXPECT_EQ(sizeOf(cache), 10000U);
    EXPECT_EQ(cache.entry(ip(0)), oldest) << "which is a use";
    cache.find(ip(10000));
    EXPECT_EQ(sizeOf(cache), 10000U);
    EXPECT_FALSE(holds(cache, ip(1)));
    EXPECT_TRUE(holds(cache, ip(0)));
    second->increment(Entry::AttributeType::MessageCount, 7, 1); // whoever holds it may go on
    RefEntry const again = cache.entry(ip(1));
    EXPECT_FALSE(again == second);
    EXPECT_TRUE(recordsOf(again).empty());
}

TEST_F(CacheTest, AddressesOfBothFamiliesAreToldApart) {
    Cache cache;
    std::vector<std::string> const texts{"0.0.0.0",     "192.0.2.1",        "::",          "::1",
                                         "::192.0.2.1", "::ffff:192.0.2.1", "2001:db8::1", "2001:db8::2"};
    for (std::string const& text : texts) {
        cache.find(ip(text));
    }
    EXPECT_EQ(sizeOf(cache), texts.size());
    std::vector<IPAddress> listed;
    SharedLock const hold(cache.lock);
    cache.forEachInKeyOrder([&](Cache::Pair const& pair) {
        listed.push_back(pair.first);
        return true;
    });
    EXPECT_TRUE(std::is_sorted(listed.begin(), listed.end()));
}

TEST_F(CacheTest, RandomUseIsThatOfAPlainModel) {
    RandomSource random;
    Cache cache;
    std::list<unsigned int> order; // front: used last
    std::map<unsigned int, std::pair<std::list<unsigned int>::iterator, RefEntry>> model;
    for (int step = 0; step < 60000; ++step) {
        auto const n = static_cast<unsigned int>(random.below(12000));
        if (random.oneIn(30)) {
            cache.remove(ip(n));
            if (auto const found = model.find(n); found != model.end()) {
                order.erase(found->second.first);
                model.erase(found);
            }
            continue;
        }
        RefEntry const entry = cache.entry(ip(n));
        auto const found = model.find(n);
        if (found != model.end()) {
            ASSERT_EQ(found->second.second, entry) << n;
            order.erase(found->second.first);
            model.erase(found);
        } else {
            ASSERT_TRUE(recordsOf(entry).empty());
            entry->add(n, Entry::Record(n, 0, 0, 0, 0));
        }
        order.push_front(n);
        model.emplace(n, std::pair(order.begin(), entry));
        if (model.size() > 10000) {
            model.erase(order.back());
            order.pop_back();
        }
    }
    ASSERT_EQ(sizeOf(cache), model.size());
    for (auto const& [n, place] : model) {
        ASSERT_TRUE(holds(cache, ip(n))) << n;
    }
}

TEST_F(CacheTest, TwoThreadsGetTheSameNewEntry) {
    Cache cache;
    for (unsigned int n = 0; n < 2000; ++n) {
        RefEntry other(false);
        std::thread asking([&] { other = cache.entry(ip(n)); });
        RefEntry const mine = cache.entry(ip(n));
        asking.join();
        ASSERT_EQ(mine, other) << n;
    }
}

TEST_F(CacheTest, InstanceIsOneWhateverTheFlag) {
    RefCache* const cache = RefCache::instance(true);
    EXPECT_EQ(RefCache::instance(false), cache);
    EXPECT_EQ(RefCache::instance(), cache);
    EXPECT_FALSE(cache->isNull());
    EXPECT_EQ(&**cache, cache->operator->());
}

TEST(CacheDeathTest, InstanceNeedsNoConfigurationAndIsMadeOnce) {
    expectInOwnProcess([] {
        std::vector<RefCache*> seen(4);
        std::vector<std::thread> threads;
        for (RefCache*& mine : seen) {
            threads.emplace_back([&mine] { mine = RefCache::instance(); });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
        EXPECT_NE(seen[0], nullptr);
        EXPECT_EQ(std::count(seen.begin(), seen.end(), seen[0]), 4);
    });
}

} // namespace
} // namespace Vellum::Reputation
