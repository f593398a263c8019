// All client addresses that the process remembers.
#pragma once

#include "foundation/IPAddressKeyOrder.h"
#include "include2/LRUCache.h"
#include "reputation/ReputationEntry.h"

#include <boost/shared_ptr.hpp>

#include <vector>

namespace Vellum::Reputation {

// Threads: the lock of LRUCache guards which entries there are; Entry::s_lock guards what is inside them. Order:
// Entry::s_lock, then this cache's lock. find() takes only the latter.
class Cache : public LRUCache<IPAddress, RefEntry> {
  public:
    static constexpr std::uint32_t mostEntries = 10000;

    Cache() : LRUCache(mostEntries) {}

    // The place of an address, never end(): one that is not there yet gets a new, empty entry, for which the one that
    // was unused for longest goes when the cache is full. Counts as a use. Exclusive, as one step: two threads that ask
    // for a new address get the same entry. The place holds only until somebody else changes the cache: use it under
    // the lock, or use entry(). Throws std::bad_alloc.
    iterator find(IPAddress const& address) const override;
    // The same as a handle, which stays good.
    RefEntry entry(IPAddress const& address) const;

    // Calls visit(Pair const&) for every address in ascending order, until it answers false. As forEachInKeyOrder(),
    // but entries and their records, which lie all over the memory, are asked for some addresses before their turn.
    // Throws std::bad_alloc.
    template <class Visit>
    void walk(Visit visit) const VELLUM_REQUIRES_SHARED(lock)
    VELLUM_REQUIRES_SHARED(Entry::s_lock);

  private:
    iterator findOrCreateNoLock(IPAddress const& address) const VELLUM_REQUIRES(lock);
};

template <class Visit>
void Cache::walk(Visit visit) const {
    constexpr std::size_t entriesAhead = 16;
    constexpr std::size_t recordsAhead = 8;
    std::vector<Pair const*> pairs;
    pairs.reserve(sizeNoLock());
    forEachInKeyOrder([&pairs](Pair const& pair) {
        pairs.push_back(&pair);
        return true;
    });
    for (std::size_t at = 0; at < pairs.size(); ++at) {
        if (at + entriesAhead < pairs.size()) {
            auto const* const entry = reinterpret_cast<char const*>(pairs[at + entriesAhead]->second.operator->());
            __builtin_prefetch(entry);
            __builtin_prefetch(entry + sizeof(Entry) - 1);
        }
        if (at + recordsAhead < pairs.size()) {
            pairs[at + recordsAhead]->second->prefetchRecords();
        }
        if (!visit(*pairs[at])) {
            return;
        }
    }
}

// The process-wide handle.
class RefCache {
  public:
    RefCache() : m_cache(new Cache) {}

    // The flag is ignored. Made on first use, never destroyed.
    static RefCache* instance(bool = true);

    Cache* operator->() const { return m_cache.get(); }
    Cache& operator*() const { return *m_cache; }
    bool isNull() const { return !m_cache; }
    explicit operator bool() const { return !isNull(); }

  private:
    boost::shared_ptr<Cache> m_cache;
};

} // namespace Vellum::Reputation
