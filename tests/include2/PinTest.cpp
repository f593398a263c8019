// Pins: what leaves a cache stays readable for those who have pinned it, and not a moment longer.
#include "include2/LRUCache.h"

#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace Vellum {
namespace {

// A value that counts how many of its kind there are.
class Counted {
  public:
    explicit Counted(std::string const& text) : m_text(text) { ++alive; }
    Counted(Counted const& other) : m_text(other.m_text) { ++alive; }
    ~Counted() { --alive; }
    Counted& operator=(Counted const&) = delete;

    std::string const& text() const { return m_text; }
    static int alive;

  private:
    std::string m_text;
};
int Counted::alive = 0;

class Cache : public LRUCache<int, Counted> {
  public:
    using LRUCache::LRUCache;

    void put(int key) { add(key, Counted("value " + std::to_string(key))); }
    std::unique_ptr<Pin> pin() const {
        SharedLock const hold(lock);
        return std::make_unique<Pin>(*this);
    }
    // Where every pair is now, in key order.
    std::vector<Pair const*> pairs() const {
        SharedLock const hold(lock);
        std::vector<Pair const*> all;
        forEachInKeyOrder([&](Pair const& pair) {
            all.push_back(&pair);
            return true;
        });
        return all;
    }
};

class PinTest : public testing::Test {
  protected:
    PinTest() {
        for (int key = 0; key < 3; ++key) {
            m_cache.put(key);
        }
        m_pairs = m_cache.pairs();
    }
    void TearDown() override {
        m_owned.reset();
        EXPECT_EQ(Counted::alive, 0) << "something was never freed";
    }

    void expectReadable() const {
        ASSERT_EQ(m_pairs.size(), 3U);
        for (int key = 0; key < 3; ++key) {
            EXPECT_EQ(m_pairs[static_cast<std::size_t>(key)]->first, key);
            EXPECT_EQ(m_pairs[static_cast<std::size_t>(key)]->second.text(), "value " + std::to_string(key));
        }
    }

    std::optional<Cache> m_owned{std::in_place, 3U};
    Cache& m_cache = *m_owned;
    std::vector<Cache::Pair const*> m_pairs;
};

TEST_F(PinTest, RemovedEntriesStayReadableWhilePinnedAndAreFreedAfter) {
    auto pin = m_cache.pin();
    m_cache.remove(0);
    m_cache.remove(2);
    EXPECT_EQ(m_cache.pairs().size(), 1U) << "they have left the cache all the same";
    EXPECT_TRUE(m_cache.find(0) == m_cache.end());
    expectReadable();
    EXPECT_EQ(Counted::alive, 3);
    pin.reset();
    EXPECT_EQ(Counted::alive, 1);
}

TEST_F(PinTest, EvictedEntriesStayReadable) {
    auto pin = m_cache.pin();
    for (int key = 10; key < 13; ++key) {
        m_cache.put(key);
    }
    expectReadable();
    EXPECT_EQ(Counted::alive, 6);
    pin.reset();
    EXPECT_EQ(Counted::alive, 3);
    EXPECT_EQ(m_cache.pairs().front()->second.text(), "value 10");
}

TEST_F(PinTest, ClearedEntriesStayReadableAndTheCacheGoesOn) {
    auto pin = m_cache.pin();
    m_cache.clear();
    EXPECT_TRUE(m_cache.pairs().empty());
    m_cache.put(1);
    m_cache.clear();
    m_cache.clear();
    m_cache.put(2);
    expectReadable();
    EXPECT_EQ(Counted::alive, 5);
    pin.reset();
    EXPECT_EQ(Counted::alive, 1);
    EXPECT_EQ(m_cache.pairs().front()->second.text(), "value 2");
}

TEST_F(PinTest, EntryRemovedAndAddedAgainIsAnotherOne) {
    auto pin = m_cache.pin();
    m_cache.remove(1);
    m_cache.put(1);
    EXPECT_NE(m_cache.pairs()[1], m_pairs[1]);
    expectReadable();
    pin.reset();
    EXPECT_EQ(Counted::alive, 3);
}

TEST_F(PinTest, LastOfSeveralPinsFrees) {
    auto first = m_cache.pin();
    m_cache.remove(0);
    auto second = m_cache.pin();
    m_cache.remove(1);
    first.reset();
    expectReadable();
    EXPECT_EQ(Counted::alive, 3);
    second.reset();
    EXPECT_EQ(Counted::alive, 1);
}

TEST_F(PinTest, NothingIsKeptWithoutAPin) {
    m_cache.remove(0);
    EXPECT_EQ(Counted::alive, 2);
    m_cache.pin().reset();
    m_cache.remove(1);
    EXPECT_EQ(Counted::alive, 1);
    m_cache.clear();
    EXPECT_EQ(Counted::alive, 0);
}

TEST_F(PinTest, MoreThanIsFreedAtOnceIsFreedAll) {
    Cache large(20000);
    for (int key = 0; key < 20000; ++key) {
        large.put(key);
    }
    auto pin = large.pin();
    large.clear();
    EXPECT_EQ(Counted::alive, 20003);
    pin.reset();
    EXPECT_EQ(Counted::alive, 3);
}

TEST_F(PinTest, RoomOfFreedEntriesIsUsedAgain) {
    for (int round = 0; round < 50; ++round) {
        auto pin = m_cache.pin();
        m_cache.clear();
        for (int key = 0; key < 3; ++key) {
            m_cache.put(key);
        }
        pin.reset();
        ASSERT_EQ(Counted::alive, 3);
    }
    m_pairs = m_cache.pairs();
    expectReadable();
}

} // namespace
} // namespace Vellum
