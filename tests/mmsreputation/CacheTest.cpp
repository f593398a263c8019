#include "mmsreputation/Cache.h"

#include "foundation/Exception.h"
#include "tests/support/EndpointConfiguration.h"
#include "tests/support/EndpointEntries.h"

#include <gtest/gtest.h>

#include <thread>

namespace Vellum::MMSReputation {
namespace {

using Numbers = std::set<MSISDN>;

constexpr long now = 1700000000;
std::uint32_t const currentSlice = Period(now, 30, 15).index;

class EndpointCache : public testing::Test {
  protected:
    RefEntry add(unsigned int n) { return m_cache.entry(subscriber(n), 0, true); }
    static Numbers blacklistOf(Cache const& cache) {
        Numbers numbers{subscriber(99)};
        cache.blacklist(numbers);
        return numbers;
    }
    static Numbers exemptOf(Cache const& cache) {
        Numbers numbers{subscriber(99)};
        cache.exempt(numbers);
        return numbers;
    }
    // Both ways of it, on a cache that `fill` makes.
    template <class Check>
    void purgeBothWays(Check check) {
        m_cache.clear();
        check([&] { m_cache.purge(true, now); });
        m_cache.clear();
        check([&] {
            ExclusiveLock const entries(Entry::s_mutex);
            ExclusiveLock const hold(m_cache.lock);
            m_cache.purge(false, now);
        });
    }

    InstalledConfiguration m_configuration;
    Cache m_cache;
};

TEST_F(EndpointCache, UnknownNumberIsTheEnd) {
    EXPECT_TRUE(m_cache.find(subscriber(1), 0, false) == m_cache.end());
    EXPECT_TRUE(m_cache.entry(subscriber(1), 0, false).isNull());
    EXPECT_EQ(sizeOf(m_cache), 0U);
}

TEST_F(EndpointCache, FindCreatesAnEntryWithoutRecordsAndExpiry) {
    auto const position = m_cache.find(subscriber(1), 0, true);
    ASSERT_FALSE(position == m_cache.end());
    EXPECT_EQ(position->first, subscriber(1));
    EXPECT_TRUE(slicesOf(*position->second).empty());
    EXPECT_EQ(position->second->blacklistExpiry(), 0);
    EXPECT_TRUE(m_cache.find(subscriber(1), 0, true) == position) << "found, not made again";
    EXPECT_EQ(m_cache.entry(subscriber(1), 0, true).get(), position->second.get());
    EXPECT_EQ(sizeOf(m_cache), 1U);
}

TEST_F(EndpointCache, FindWithASliceDropsWhatIsNotScoredThere) {
    RefEntry const entry = add(1);
    for (std::uint32_t slice = 1001; slice <= 1020; ++slice) {
        entry->add(Period(slice), Entry::Record(1, 0));
    }
    m_cache.find(subscriber(1), 0, false);
    EXPECT_EQ(slicesOf(*entry), range(1001, 1020)) << "no slice, nothing dropped";
    m_cache.find(subscriber(1), 1016, false);
    EXPECT_EQ(slicesOf(*entry), range(1001, 1020)) << "the oldest is still scored";
    m_cache.find(subscriber(1), 1017, false);
    EXPECT_EQ(slicesOf(*entry), range(1002, 1020));
    m_cache.find(subscriber(1), 1020, true);
    EXPECT_EQ(slicesOf(*entry), range(1005, 1020));
    EXPECT_TRUE(slicesOf(*m_cache.entry(subscriber(1), 2000, false)).empty());
}

TEST_F(EndpointCache, FindOfAnEmptyEntryWithASliceIsHarmless) {
    add(1);
    EXPECT_FALSE(m_cache.find(subscriber(1), 1000, false) == m_cache.end());
}

TEST_F(EndpointCache, HoldsTenThousandWhateverTheConfigurationSays) {
    m_configuration->entries = 5;
    EXPECT_EQ(m_cache.maxSize(), 10000U);
    for (unsigned int n = 0; n < 10000; ++n) {
        add(n);
    }
    EXPECT_EQ(sizeOf(m_cache), 10000U);
    m_cache.find(subscriber(0), 0, false);
    add(10000);
    EXPECT_EQ(sizeOf(m_cache), 10000U);
    EXPECT_TRUE(holds(m_cache, subscriber(0))) << "found, so used";
    EXPECT_FALSE(holds(m_cache, subscriber(1)));
}

TEST_F(EndpointCache, EvictedEntryLivesOnInItsHandle) {
    RefEntry const entry = add(0);
    for (unsigned int n = 1; n <= 10000; ++n) {
        add(n);
    }
    EXPECT_FALSE(holds(m_cache, subscriber(0)));
    EXPECT_EQ(entry->references(), 1U);
    entry->increment(AttributeType::spam, 5);
    EXPECT_EQ(countsOf(*entry), (Counts{{5, {1, 0}}}));
}

TEST_F(EndpointCache, ListsAreKeptApart) {
    m_cache.blacklist(subscriber(1));
    m_cache.blacklist(subscriber(1));
    m_cache.exempt(subscriber(2));
    EXPECT_TRUE(m_cache.isBlacklisted(subscriber(1)));
    EXPECT_FALSE(m_cache.isBlacklisted(subscriber(2)));
    EXPECT_TRUE(m_cache.isExempt(subscriber(2)));
    EXPECT_FALSE(m_cache.isExempt(subscriber(1)));
    EXPECT_EQ(blacklistOf(m_cache), Numbers{subscriber(1)}) << "what was in the set is replaced";
    EXPECT_EQ(exemptOf(m_cache), Numbers{subscriber(2)});
    EXPECT_EQ(sizeOf(m_cache), 0U) << "lists are no entries";
}

TEST_F(EndpointCache, EmptyListsHoldNobodyAndAreCopiedAsEmpty) {
    EXPECT_FALSE(m_cache.isBlacklisted(subscriber(1)));
    EXPECT_FALSE(m_cache.isExempt(subscriber(1)));
    EXPECT_TRUE(blacklistOf(m_cache).empty());
    EXPECT_TRUE(exemptOf(m_cache).empty());
}

TEST_F(EndpointCache, EveryMemberOfAListIsFoundWhereverItStands) {
    for (unsigned int n = 0; n < 100; n += 2) {
        m_cache.blacklist(subscriber(98 - n));
    }
    for (unsigned int n = 0; n < 100; ++n) {
        EXPECT_EQ(m_cache.isBlacklisted(subscriber(n)), n % 2 == 0) << n;
    }
}

TEST_F(EndpointCache, CopyOfAListReplacesAndOfItselfDoesNothing) {
    Cache other;
    other.blacklist(subscriber(1));
    other.exempt(subscriber(2));
    m_cache.blacklist(subscriber(3));
    m_cache.exempt(subscriber(4));
    m_cache.copyBlacklist(other);
    EXPECT_EQ(blacklistOf(m_cache), Numbers{subscriber(1)});
    EXPECT_EQ(exemptOf(m_cache), Numbers{subscriber(4)});
    m_cache.copyExempt(other);
    EXPECT_EQ(exemptOf(m_cache), Numbers{subscriber(2)});
    m_cache.copyBlacklist(m_cache);
    m_cache.copyExempt(m_cache);
    EXPECT_EQ(blacklistOf(m_cache), Numbers{subscriber(1)});
    EXPECT_EQ(exemptOf(m_cache), Numbers{subscriber(2)});
}

TEST_F(EndpointCache, PurgeDropsAnEntryWithNothing) {
    purgeBothWays([&](auto purge) {
        add(1);
        purge();
        EXPECT_FALSE(holds(m_cache, subscriber(1)));
    });
}

TEST_F(EndpointCache, PurgeKeepsABlacklistedEntryUpToItsExpiry) {
    purgeBothWays([&](auto purge) {
        add(1)->blacklistExpiry(now + 1);
        add(2)->blacklistExpiry(now);
        add(3)->blacklistExpiry(now - 1);
        purge();
        EXPECT_TRUE(holds(m_cache, subscriber(1)));
        EXPECT_TRUE(holds(m_cache, subscriber(2))) << "at exactly its expiry";
        EXPECT_FALSE(holds(m_cache, subscriber(3)));
    });
}

TEST_F(EndpointCache, PurgeKeepsAScoredEntryAndDropsAnOldOne) {
    purgeBothWays([&](auto purge) {
        add(1)->increment(AttributeType::spam, currentSlice - 15);
        add(2)->increment(AttributeType::spam, currentSlice - 16);
        add(3)->increment(static_cast<AttributeType>(2), currentSlice);
        RefEntry const expired = add(4);
        expired->blacklistExpiry(now - 1);
        expired->increment(AttributeType::infected, currentSlice - 16);
        RefEntry const expiredButScored = add(5);
        expiredButScored->blacklistExpiry(now - 1);
        expiredButScored->increment(AttributeType::infected, currentSlice);
        purge();
        EXPECT_TRUE(holds(m_cache, subscriber(1)));
        EXPECT_FALSE(holds(m_cache, subscriber(2)));
        EXPECT_FALSE(holds(m_cache, subscriber(3))) << "a record that counts nothing";
        EXPECT_FALSE(holds(m_cache, subscriber(4)));
        EXPECT_TRUE(holds(m_cache, subscriber(5)));
        EXPECT_EQ(sizeOf(m_cache), 2U);
    });
}

TEST_F(EndpointCache, PurgeLeavesTheListsAlone) {
    m_cache.blacklist(subscriber(1));
    m_cache.exempt(subscriber(2));
    m_cache.purge(true, now);
    EXPECT_TRUE(m_cache.isBlacklisted(subscriber(1)));
    EXPECT_TRUE(m_cache.isExempt(subscriber(2)));
}

TEST_F(EndpointCache, PurgeOfEmptyHandlesDropsThem) {
    purgeBothWays([&](auto purge) {
        m_cache.add(subscriber(1), RefEntry(false));
        purge();
        EXPECT_EQ(sizeOf(m_cache), 0U);
    });
}

TEST_F(EndpointCache, PurgeWithoutATimeIsAboutNow) {
    add(1)->blacklistExpiry(4102444800L); // in 2100
    add(2)->blacklistExpiry(1700000000L); // in 2023
    m_cache.purge(true);
    EXPECT_TRUE(holds(m_cache, subscriber(1)));
    EXPECT_FALSE(holds(m_cache, subscriber(2)));
}

TEST_F(EndpointCache, PurgeWithoutConfigurationThrowsAndDropsNothing) {
    add(1);
    NoConfiguration const none;
    EXPECT_THROW(m_cache.purge(true, now), Exception);
    EXPECT_EQ(sizeOf(m_cache), 1U);
}

// Everything at once; the thread sanitizer watches.
TEST_F(EndpointCache, ThreadsMayDoEverythingTogether) {
    std::vector<std::thread> threads;
    auto const repeat = [&](auto work) {
        threads.emplace_back([work] {
            for (unsigned int i = 0; i < 400; ++i) {
                work(i);
            }
        });
    };
    for (int twice = 0; twice < 2; ++twice) {
        repeat([&](unsigned int i) {
            RefEntry const entry = m_cache.entry(subscriber(i % 40), currentSlice, true);
            entry->increment(AttributeType::spam, currentSlice - i % 20);
            entry->blacklistExpiry(now + i % 3 - 1);
        });
    }
    repeat([&](unsigned int i) { m_cache.find(subscriber(i % 40), currentSlice, i % 2 == 0); });
    repeat([&](unsigned int) { m_cache.purge(true, now); });
    repeat([&](unsigned int) {
        ExclusiveLock const entries(Entry::s_mutex);
        ExclusiveLock const hold(m_cache.lock);
        m_cache.purge(false, now);
    });
    repeat([&](unsigned int i) {
        m_cache.blacklist(subscriber(i));
        m_cache.isBlacklisted(subscriber(i + 1));
        m_cache.isExempt(subscriber(i));
    });
    repeat([&](unsigned int) {
        SharedLock const entries(Entry::s_mutex);
        SharedLock const hold(m_cache.lock);
        m_cache.forEachInKeyOrder([](auto const& pair) {
            pair.second->score(currentSlice, false);
            return pair.second->blacklistExpiry() <= now + 2;
        });
    });
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(blacklistOf(m_cache).size(), 400U);
}

} // namespace
} // namespace Vellum::MMSReputation
