#include "include2/LRUCache.h"

#include <gtest/gtest.h>

#include <list>
#include <map>
#include <random>
#include <string>

using Vellum::ExclusiveLock;
using Vellum::LRUCache;
using Vellum::OrderPrefix;
using Vellum::OrderPrefixWriter;
using Vellum::SharedLock;

namespace {

// A key whose first ordering bytes are often equal, so that both halves of a search are used.
struct Word {
    std::string text;
    bool operator<(Word const& other) const { return text < other.text; }
};

// Keys without ordering bytes: everything goes through operator<.
struct Plain {
    int number;
    bool operator<(Plain const& other) const { return number < other.number; }
};

} // namespace

template <>
struct Vellum::KeyOrder<Word> {
    static OrderPrefix prefix(Word const& word) {
        OrderPrefixWriter writer;
        writer.bytes(word.text.data(), word.text.size());
        return writer.prefix();
    }
    static int compare(Word const& a, Word const& b) { return a.text.compare(b.text); }
};

namespace {

// The textbook: what the cache is compared with.
class Model {
  public:
    explicit Model(std::size_t capacity) : m_capacity(capacity) {}
    std::size_t add(std::string const& key, int value) {
        if (!m_index.contains(key)) {
            m_list.emplace_front(key, value);
            m_index[key] = m_list.begin();
            while (m_list.size() > m_capacity) {
                remove(m_list.back().first);
            }
        }
        return m_list.size();
    }
    int const* find(std::string const& key) {
        auto const it = m_index.find(key);
        if (it == m_index.end()) {
            return nullptr;
        }
        m_list.splice(m_list.begin(), m_list, it->second);
        return &it->second->second;
    }
    void remove(std::string key) {
        auto const it = m_index.find(key);
        if (it != m_index.end()) {
            m_list.erase(it->second);
            m_index.erase(it);
        }
    }
    void clear() {
        m_list.clear();
        m_index.clear();
    }
    std::map<std::string, std::list<std::pair<std::string, int>>::iterator> const& index() const { return m_index; }

  private:
    std::size_t m_capacity;
    std::list<std::pair<std::string, int>> m_list;
    std::map<std::string, std::list<std::pair<std::string, int>>::iterator> m_index;
};

class WordCache : public LRUCache<Word, int> {
  public:
    using LRUCache::LRUCache;
    bool isSound() const {
        SharedLock const hold(lock);
        return index.isSound();
    }
};

std::vector<std::pair<std::string, int>> contents(WordCache const& cache) {
    std::vector<std::pair<std::string, int>> all;
    SharedLock const hold(cache.lock);
    cache.forEachInKeyOrder([&](auto& pair) {
        all.emplace_back(pair.first.text, pair.second);
        return true;
    });
    return all;
}

std::uint32_t addNow(WordCache& cache, char const* key, int value) {
    ExclusiveLock const hold(cache.lock);
    return cache.addNoLock({key}, value);
}

std::string randomKey(std::mt19937_64& random, unsigned int variety) {
    static char const* const stems[] = {"", "a", "192.0.2.1 long-common-stem-", "192.0.2.1 long-common-stem-b", "z"};
    std::string key = stems[random() % 5];
    unsigned long number = random() % variety;
    for (; number > 0; number /= 7) {
        key += static_cast<char>("\x01"
                                 "09az\x80\xff"[number % 7]);
    }
    return key;
}

} // namespace

TEST(LRUCache, AddingAPresentKeyKeepsTheOldValueAndTheOrder) {
    WordCache cache(2);
    EXPECT_EQ(addNow(cache, "a", 1), 1U);
    EXPECT_EQ(addNow(cache, "b", 2), 2U);
    EXPECT_EQ(addNow(cache, "a", 9), 2U) << "answers the size";
    EXPECT_EQ(addNow(cache, "c", 3), 2U);
    EXPECT_EQ(contents(cache), (std::vector<std::pair<std::string, int>>{{"b", 2}, {"c", 3}})) << "a stayed the oldest";
}

TEST(LRUCache, OneTooManyEvictsTheFirstAddedThatWasNeverFound) {
    WordCache cache(3);
    for (char const* key : {"a", "b", "c", "d"}) {
        cache.add({key}, 0);
    }
    EXPECT_EQ(cache.find({"a"}), cache.end());
    EXPECT_NE(cache.find({"b"}), cache.end());
}

TEST(LRUCache, FindingTheOldestMakesTheSecondOldestGo) {
    WordCache cache(3);
    for (char const* key : {"a", "b", "c"}) {
        cache.add({key}, 0);
    }
    EXPECT_NE(cache.find({"a"}), cache.end());
    cache.add({"d"}, 0);
    EXPECT_NE(cache.find({"a"}), cache.end());
    EXPECT_EQ(cache.find({"b"}), cache.end());
}

TEST(LRUCache, LookupDoesNotProtectFromEviction) {
    WordCache cache(2);
    cache.add({"a"}, 0);
    cache.add({"b"}, 0);
    {
        SharedLock const hold(cache.lock);
        EXPECT_NE(cache.lookup({"a"}), cache.end());
    }
    cache.add({"c"}, 0);
    EXPECT_EQ(cache.find({"a"}), cache.end());
}

TEST(LRUCache, CapacityZeroStaysEmpty) {
    WordCache cache(0);
    EXPECT_EQ(addNow(cache, "a", 1), 0U);
    EXPECT_EQ(addNow(cache, "a", 1), 0U);
    EXPECT_TRUE(contents(cache).empty());
}

TEST(LRUCache, RemovingAnAbsentKeyAndClearingAnEmptyCacheDoNothing) {
    WordCache cache(2);
    cache.clear();
    cache.remove({"a"});
    cache.add({"a"}, 1);
    cache.remove({"b"});
    EXPECT_EQ(contents(cache).size(), 1U);
    cache.clear();
    EXPECT_TRUE(contents(cache).empty());
    EXPECT_EQ(addNow(cache, "b", 1), 1U) << "usable after clear";
}

TEST(LRUCache, ValuesAreChangedInPlace) {
    WordCache cache(2);
    cache.add({"a"}, 1);
    {
        ExclusiveLock const hold(cache.lock);
        cache.findNoLock({"a"})->second = 5;
    }
    EXPECT_EQ(contents(cache).front().second, 5);
}

TEST(LRUCache, DerivedAddNoLockIsUsedByAdd) {
    class Counting : public WordCache {
      public:
        using WordCache::WordCache;
        std::uint32_t addNoLock(Word const& key, int const& value) override VELLUM_REQUIRES(lock)
        {
            ++calls;
            return WordCache::addNoLock(key, value);
        }
        int calls = 0;
    };
    Counting cache(2);
    cache.add({"a"}, 1);
    EXPECT_EQ(cache.calls, 1);
}

TEST(LRUCache, KeysWithoutOrderingBytesAreOrderedByTheirOperator) {
    LRUCache<Plain, int> cache(1000);
    for (int i = 0; i < 1000; ++i) {
        cache.add({(i * 7919) % 1000}, i);
    }
    int expected = 0;
    SharedLock const hold(cache.lock);
    cache.forEachInKeyOrder([&](auto& pair) { return pair.first.number == expected++; });
    EXPECT_EQ(expected, 1000);
}

TEST(LRUCache, BehavesLikeTheTextbookOnRandomOperations) {
    std::random_device device;
    for (unsigned int capacity : {1U, 7U, 33U, 200U, 5000U}) {
        unsigned long const seed = device();
        SCOPED_TRACE("capacity " + std::to_string(capacity) + " seed " + std::to_string(seed));
        std::mt19937_64 random(seed);
        WordCache cache(capacity);
        Model model(capacity);
        for (int step = 0; step < 60000; ++step) {
            std::string const key = randomKey(random, capacity * 2);
            unsigned long const what = random() % 100;
            // Phases of growing and shrinking, so that nodes of the index fill, split, share and merge.
            bool const shrinking = (step / 10000) % 2 == 1;
            if (what < (shrinking ? 10U : 45U)) {
                ExclusiveLock const hold(cache.lock);
                ASSERT_EQ(cache.addNoLock({key}, step), model.add(key, step));
            } else if (what < 60) {
                auto const found = cache.find({key});
                int const* expected = model.find(key);
                ASSERT_EQ(found != cache.end(), expected != nullptr);
                ASSERT_TRUE(expected == nullptr || found->second == *expected);
            } else if (what < 99 || step % 50 != 0) {
                cache.remove({key});
                model.remove(key);
            } else {
                cache.clear();
                model.clear();
            }
            if (step % 997 == 0) {
                ASSERT_TRUE(cache.isSound());
            }
        }
        std::vector<std::pair<std::string, int>> expected;
        for (auto const& [key, position] : model.index()) {
            expected.emplace_back(key, position->second);
        }
        ASSERT_EQ(contents(cache), expected);
    }
}

TEST(LRUCache, SortedAndReversedInputBothKeepTheIndexSound) {
    for (bool const reversed : {false, true}) {
        WordCache cache(20000);
        for (int i = 0; i < 20000; ++i) {
            char key[16];
            std::snprintf(key, sizeof key, "%08d", reversed ? 20000 - i : i);
            cache.add({key}, i);
        }
        EXPECT_TRUE(cache.isSound());
        for (int i = 0; i < 20000; ++i) {
            char key[16];
            std::snprintf(key, sizeof key, "%08d", i % 3 == 0 ? i : 20000 - i);
            cache.remove({key});
            if (i % 1000 == 0) {
                ASSERT_TRUE(cache.isSound()) << i;
            }
        }
        EXPECT_TRUE(cache.isSound());
    }
}

TEST(LRUCache, AWalkStopsWhenToldTo) {
    WordCache cache(100);
    for (char const* key : {"a", "b", "c"}) {
        cache.add({key}, 0);
    }
    int seen = 0;
    SharedLock const hold(cache.lock);
    cache.forEachInKeyOrder([&](auto&) { return ++seen < 2; });
    EXPECT_EQ(seen, 2);
}

TEST(LRUCache, OnlyWhatWentForWantOfRoomCountsAsEvicted) {
    WordCache cache(2);
    cache.add({"a"}, 1);
    cache.add({"b"}, 2);
    cache.add({"b"}, 3);
    EXPECT_EQ(cache.evictions(), 0U);
    EXPECT_EQ(cache.recentSize(), 2U);
    cache.add({"c"}, 4);
    EXPECT_EQ(cache.evictions(), 1U);
    cache.remove({"c"});
    EXPECT_EQ(cache.recentSize(), 1U);
    cache.clear();
    EXPECT_EQ(cache.evictions(), 1U);
    EXPECT_EQ(cache.recentSize(), 0U);
    WordCache empty(0);
    empty.add({"a"}, 1);
    EXPECT_EQ(empty.evictions(), 1U);
    EXPECT_EQ(empty.recentSize(), 0U);
}
