// The process's endpoint cache, and how it is loaded.
#pragma once

#include "mmsreputation/Cache.h"

#include <boost/shared_ptr.hpp>

namespace Vellum::MMSReputation {

class RefCache;

// What a load may ask for, as bits.
namespace Select {
inline constexpr unsigned int exemptList = 1;
inline constexpr unsigned int blacklist = 2;
inline constexpr unsigned int entries = 4; // with records and expiry times
inline constexpr unsigned int everything = 255;
} // namespace Select

// Where a cache is loaded from.
class EntrySource {
  public:
    virtual ~EntrySource() = default;
    // Fills `target`, which nobody else sees yet, with what the bits of `what` ask for.
    virtual void read(RefCache& target, unsigned int what) = 0;
};

// A shared handle on a cache, or on none. Copies share the cache.
class RefCache {
  public:
    // A new, empty cache, or none.
    explicit RefCache(bool create) : m_cache(create ? new Cache : nullptr) {}
    virtual ~RefCache() = default;
    RefCache(RefCache const&) = default;
    RefCache& operator=(RefCache const&) = default;

    // Throws Exception (code 1) on a handle without a cache.
    Cache* operator->() const;
    Cache& operator*() const { return *operator->(); }
    bool isNull() const { return !m_cache; }
    explicit operator bool() const { return !isNull(); }
    bool operator==(RefCache const& other) const { return m_cache == other.m_cache; }

    // The process's cache.
    //
    // Without a source: the current cache. Where none was loaded yet, up to 60 ms are waited for somebody to load one;
    // then the answer is an empty handle (logged, 0x3000165), which callers must test for. Never waits for a loader
    // once a cache is there. A decision calls it: the host loads before its first one.
    //
    // With a source, a fresh cache is read from it. When `what` is exactly Select::exemptList, Select::blacklist or
    // both, only these lists replace those of the current cache, and everything else stays; with any other value, and
    // at the first load, the fresh cache becomes the current one. The old cache lives on as long as handles to it.
    // One load at a time; waits for the source. What the source throws is passed on, and nothing has changed then.
    static RefCache instance(EntrySource* source, unsigned int what);

  private:
    boost::shared_ptr<Cache> m_cache;
};

} // namespace Vellum::MMSReputation
