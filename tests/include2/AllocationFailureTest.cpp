// The cache when memory runs out: every allocation of an insertion fails in turn, and nothing may be half done.
#include "include2/LRUCache.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <new>
#include <string>

namespace {
thread_local long allocationsUntilFailure = -1; // negative: none fails
}

[[gnu::noinline]] void* operator new(std::size_t size) {
    if (allocationsUntilFailure >= 0 && allocationsUntilFailure-- == 0) {
        throw std::bad_alloc();
    }
    if (void* block = std::malloc(size == 0 ? 1 : size)) {
        return block;
    }
    throw std::bad_alloc();
}
[[gnu::noinline]] void* operator new(std::size_t size, std::align_val_t alignment) {
    if (allocationsUntilFailure >= 0 && allocationsUntilFailure-- == 0) {
        throw std::bad_alloc();
    }
    if (void* block = std::aligned_alloc(static_cast<std::size_t>(alignment), size)) {
        return block;
    }
    throw std::bad_alloc();
}
[[gnu::noinline]] void operator delete(void* block, std::align_val_t) noexcept {
    std::free(block);
}
[[gnu::noinline]] void operator delete(void* block, std::size_t, std::align_val_t) noexcept {
    std::free(block);
}
[[gnu::noinline]] void operator delete(void* block) noexcept {
    std::free(block);
}
[[gnu::noinline]] void operator delete(void* block, std::size_t) noexcept {
    std::free(block);
}

namespace {

class Cache : public Vellum::LRUCache<std::string, std::string> {
  public:
    using LRUCache::LRUCache;
    bool isSound() const {
        Vellum::SharedLock const hold(lock);
        std::uint32_t walked = 0;
        index.forEach([&](std::uint32_t) { return ++walked > 0; }, [](std::uint32_t) {});
        return index.isSound() && walked == size;
    }
};

} // namespace

TEST(LRUCacheWithoutMemory, AFailedAddLeavesTheCacheAsItWas) {
    Cache cache(100000);
    std::string const value(100, 'v');
    long failures = 0;
    for (int i = 0; i < 3000; ++i) {
        std::string const key = "a key too long for the small string " + std::to_string((i * 7919) % 3000);
        for (long n = 0;; ++n) {
            allocationsUntilFailure = n;
            try {
                cache.add(key, value);
                allocationsUntilFailure = -1;
                break;
            } catch (std::bad_alloc const&) {
                allocationsUntilFailure = -1;
                ++failures;
                ASSERT_TRUE(cache.find(key) == cache.end());
            }
        }
        if (i % 100 == 0) {
            ASSERT_TRUE(cache.isSound());
        }
    }
    EXPECT_TRUE(cache.isSound());
    EXPECT_GT(failures, 6000) << "two copies for each entry, and the chunks of list and index";
}
