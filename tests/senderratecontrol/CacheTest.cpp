#include "senderratecontrol/SenderRateControlCache.h"

#include "foundation/Exception.h"
#include "tests/support/OwnProcess.h"
#include "tests/support/RateControl.h"

#include <gtest/gtest.h>

#include <atomic>
#include <optional>
#include <thread>
#include <vector>

namespace Vellum::SenderRateControl {
namespace {

template <class Call>
std::optional<Exception> refusalOf(Call call) {
    try {
        call();
        return std::nullopt;
    } catch (Exception const& refused) {
        return refused;
    }
}

void expectNoConfiguration(std::optional<Exception> const& refused) {
    ASSERT_TRUE(refused.has_value());
    EXPECT_EQ(refused->where(), "static Vellum::SenderRateControl::Configuration* "
                                "Vellum::SenderRateControl::Configuration::instance()");
    EXPECT_EQ(refused->code(), 4);
    EXPECT_EQ(refused->sourceFile(), "SenderRateControlCache");
    EXPECT_EQ(refused->line(), 11U);
    EXPECT_EQ(refused->stringParameters(), std::vector<std::string>{"Reputation::Configuration is null"});
}

TEST(RateConfiguration, WithoutOneItsUseThrows) {
    ASSERT_EQ(Configuration::s_instance, nullptr);
    expectNoConfiguration(refusalOf([] { Configuration::instance(); }));
    expectNoConfiguration(refusalOf([] { Cache(); }));
}

TEST(RateConfiguration, TheInstalledOneIsAnswered) {
    InstalledConfiguration configuration(3);
    EXPECT_EQ(Configuration::instance(), &configuration);
    EXPECT_EQ(Cache().maxSize(), 3U);
}

TEST(RateCacheDeathTest, FirstUseWithoutAConfigurationThrowsAndALaterOneDoesNot) {
    expectInOwnProcess([] {
        expectNoConfiguration(refusalOf([] { RefCache::instance(false); }));
        InstalledConfiguration const configuration(7);
        RefCache* const made = RefCache::instance(true);
        EXPECT_EQ((*made)->maxSize(), 7U);
        EXPECT_EQ(RefCache::instance(false), made);
    });
}

TEST(RateCacheDeathTest, ThreadsThatUseItFirstTogetherGetOneCache) {
    expectInOwnProcess([] {
        InstalledConfiguration const configuration(7);
        std::vector<RefCache*> seen(8);
        std::atomic<unsigned int> ready{0};
        std::vector<std::thread> threads;
        for (RefCache*& mine : seen) {
            threads.emplace_back([&] {
                ++ready;
                while (ready < seen.size()) {
                }
                mine = RefCache::instance(false);
            });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
        EXPECT_EQ(seen, std::vector<RefCache*>(seen.size(), seen.front()));
    });
}

class RateCache : public testing::Test {
  protected:
    InstalledConfiguration const m_configuration{3};
    Cache m_cache;
};

TEST_F(RateCache, FindMakesAnEntryWhereThereIsNone) {
    auto const found = m_cache.find(sender(1));
    ASSERT_NE(found, m_cache.end());
    EXPECT_EQ(found->first, sender(1));
    ASSERT_TRUE(static_cast<bool>(found->second));
    EXPECT_TRUE(found->second->records().empty());
    EXPECT_EQ(sizeOf(m_cache), 1U);
    found->second->increment(Entry::Attribute1, 1, 5);
    auto const again = m_cache.find(sender(1));
    EXPECT_EQ(again, found);
    EXPECT_EQ(again->second->records().size(), 1U);
    EXPECT_EQ(sizeOf(m_cache), 1U);
}

TEST_F(RateCache, FindCountsAsAUse) {
    for (unsigned int const n : {1U, 2U, 3U, 1U, 4U}) {
        m_cache.find(sender(n));
    }
    EXPECT_TRUE(held(m_cache, sender(1)));
    EXPECT_FALSE(held(m_cache, sender(2)));
    EXPECT_TRUE(held(m_cache, sender(3)));
    EXPECT_TRUE(held(m_cache, sender(4)));
}

TEST_F(RateCache, EvictedEntryLivesOnForItsHolder) {
    RefEntry const kept = m_cache.entryOf(sender(1));
    for (unsigned int n = 2; n <= 4; ++n) {
        m_cache.find(sender(n));
    }
    EXPECT_FALSE(held(m_cache, sender(1)));
    kept->increment(Entry::Attribute1, 1, 1);
    EXPECT_EQ(kept->records().size(), 1U);
    EXPECT_TRUE(m_cache.find(sender(1))->second->records().empty()) << "the sender begins anew";
}

TEST_F(RateCache, LetterCaseAndTheNullSenderAreSendersOfTheirOwn) {
    m_cache.entryOf(mailbox("Ann@example.net"))->increment(Entry::Attribute1, 1, 1);
    EXPECT_TRUE(m_cache.entryOf(mailbox("ann@example.net"))->records().empty());
    EXPECT_TRUE(m_cache.entryOf(mailbox(""))->records().empty());
    EXPECT_EQ(sizeOf(m_cache), 3U);
}

TEST_F(RateCache, EntryOfIsWhatFindFinds) {
    RefEntry const entry = m_cache.entryOf(sender(1));
    EXPECT_EQ(m_cache.find(sender(1))->second.operator->(), entry.operator->());
    EXPECT_EQ(m_cache.entryOf(sender(1)).operator->(), entry.operator->());
    EXPECT_EQ(sizeOf(m_cache), 1U);
}

TEST(RateCacheOfNothing, HandsOutFreeStandingEntries) {
    InstalledConfiguration const configuration(0);
    Cache const cache;
    auto const found = cache.find(sender(1));
    ASSERT_NE(found, cache.end());
    EXPECT_EQ(found->first, sender(1));
    found->second->increment(Entry::Attribute1, 1, 5);
    EXPECT_EQ(found->second->records().size(), 1U);
    RefEntry const kept = found->second;
    auto const again = cache.find(sender(1));
    EXPECT_TRUE(again->second->records().empty()) << "nothing is remembered";
    EXPECT_EQ(kept->records().size(), 1U);
    EXPECT_TRUE(cache.entryOf(sender(2))->records().empty());
    EXPECT_EQ(sizeOf(cache), 0U);
}

// Between the adding of a new entry and the second look, another thread removes it, or has brought its own.
class MeddledCache : public Cache {
  public:
    void add(EmailAddress const& of, RefEntry const& entry) override {
        if (rival) {
            Cache::add(of, rival);
        }
        Cache::add(of, entry);
        if (evicts) {
            remove(of);
        }
        ++added;
    }
    RefEntry rival{false};
    bool evicts = false;
    int added = 0;
};

TEST(RateCacheBesideOthers, EntryThatIsEvictedAtOnceIsHandedOutAllTheSame) {
    InstalledConfiguration const configuration(3);
    MeddledCache cache;
    cache.evicts = true;
    auto const found = cache.find(sender(1));
    ASSERT_NE(found, cache.end());
    EXPECT_EQ(found->first, sender(1));
    found->second->increment(Entry::Attribute1, 1, 1);
    EXPECT_EQ(cache.added, 1);
    EXPECT_TRUE(static_cast<bool>(cache.entryOf(sender(2))));
    EXPECT_EQ(cache.added, 2);
    EXPECT_EQ(sizeOf(cache), 0U);
}

TEST(RateCacheBesideOthers, OfTwoThatAddTheFirstWins) {
    InstalledConfiguration const configuration(3);
    MeddledCache cache;
    cache.rival = RefEntry(true);
    EXPECT_EQ(cache.find(sender(1))->second.operator->(), cache.rival.operator->());
    EXPECT_EQ(cache.entryOf(sender(1)).operator->(), cache.rival.operator->());
    EXPECT_EQ(cache.added, 1) << "a hit adds nothing";
    cache.rival = RefEntry(true);
    EXPECT_EQ(cache.entryOf(sender(2)).operator->(), cache.rival.operator->());
    EXPECT_EQ(sizeOf(cache), 2U);
}

} // namespace
} // namespace Vellum::SenderRateControl
