// A bounded map that forgets the entry unused for longest.
//
// Order of use: front = most recently added or found, back = next to go. Only find() and findNoLock() count as a use;
// lookup() reads the index and changes nothing.
// Invariants, whenever `lock` is free: size == pairs in list == entries in index; every index entry points at the pair
// with the same key; size <= capacity. A capacity of 0 keeps the cache empty.
// Threads: plain operations take `lock` exclusively, find() included, because a hit reorders the list. ...NoLock
// operations take nothing: the caller holds `lock` as the annotation says.
// Cost: one search of the index; a hit moves one list node and copies nothing. A million small entries cost about
// 95 bytes each on top of what key and value allocate themselves.
#pragma once

#include "foundation/Locks.h"
#include "include2/OrderedIndex.h"
#include "include2/UseList.h"
#include "include2/WatchedCount.h"

#include <atomic>
#include <cstdint>
#include <utility>

namespace Vellum {

template <class K, class V>
class LRUCache {
  public:
    using Pair = std::pair<K const, V>;

    // The place of an entry: ->first is the key, ->second the value, which may be changed in place. Valid until the
    // entry leaves the cache; so use it only while holding `lock`. end() stands for an absent entry.
    class iterator {
      public:
        iterator() = default;
        explicit iterator(Pair* pair) : m_pair(pair) {}
        Pair* operator->() const { return m_pair; }
        Pair& operator*() const { return *m_pair; }
        bool operator==(iterator const& other) const = default;

      private:
        Pair* m_pair = nullptr;
    };

    explicit LRUCache(std::uint32_t most) : capacity(most), index(KeyAt{&list}) {}
    virtual ~LRUCache() = default;
    LRUCache(LRUCache const&) = delete;
    LRUCache& operator=(LRUCache const&) = delete;

    // Forgets everything, at one moment; the capacity stays. What was held is destroyed afterwards, some entries at a
    // time, so that nobody waits for all of them.
    virtual void clear() {
        {
            ExclusiveLock const hold(lock);
            index.clear();
            list.parkAll();
            size = 0;
        }
        dropParked();
    }
    // The entry, now the most recently used one, or end().
    virtual iterator findNoLock(K const& key) const VELLUM_REQUIRES(lock)
    {
        std::uint32_t const position = index.find(key);
        if (position == List::none) {
            return end();
        }
        list.moveToFront(position);
        return iterator(&list.at(position));
    }
    virtual iterator find(K const& key) const {
        ExclusiveLock const hold(lock);
        return findNoLock(key);
    }
    // Adds copies of key and value at the front and evicts from the back what exceeds the capacity. A key that is
    // present keeps its old value and its place: a caller that wants to replace it removes it first.
    // Returns the size afterwards. Throws what copies of K and V throw, or std::bad_alloc, and is then unchanged.
    virtual std::uint32_t addNoLock(K const& key, V const& value) VELLUM_REQUIRES(lock)
    {
        if (size >= capacity && size > 0) {
            list.prefetch(list.back());
        }
        std::uint32_t const position = list.pushFront(key, value);
        try {
            if (index.insert(key, position) != List::none) {
                list.erase(position);
                return size;
            }
        } catch (...) {
            list.erase(position);
            throw;
        }
        ++size;
        while (size > capacity) {
            removeNoLock(list.at(list.back()).first);
            ++evicted;
        }
        return size;
    }
    virtual void add(K const& key, V const& value) {
        TurnLock const hold(lock); // a load adds a million, and lets everybody else go first
        addNoLock(key, value);
    }
    virtual void remove(K const& key) {
        ExclusiveLock const hold(lock);
        removeNoLock(key);
    }

    // `key` may be the one inside the entry.
    void removeNoLock(K const& key) VELLUM_REQUIRES(lock)
    {
        std::uint32_t const position = index.erase(key);
        if (position != List::none) {
            if (pins == 0) {
                list.erase(position);
            } else {
                list.park(position);
            }
            --size;
        }
    }

    iterator end() const { return iterator(); }
    // The entry or end(), without counting as a use. `Key` is K, or a type that stands for one (KeyOrder.h).
    template <class Key = K>
    iterator lookup(Key const& key) const VELLUM_REQUIRES_SHARED(lock)
    {
        std::uint32_t const position = index.find(key);
        return position == List::none ? end() : iterator(&list.at(position));
    }
    std::uint32_t sizeNoLock() const VELLUM_REQUIRES_SHARED(lock)
    { return size; }
    std::uint32_t maxSize() const { return capacity; }

    // For statistics: as of a moment ago, without the lock.
    std::uint32_t recentSize() const VELLUM_NO_THREAD_SAFETY_ANALYSIS { return size; }
    std::uint64_t evictions() const VELLUM_NO_THREAD_SAFETY_ANALYSIS { return evicted; } // for want of room, ever

    // Calls visit(Pair&) for every entry in ascending key order, until it answers false.
    template <class Visit>
    void forEachInKeyOrder(Visit visit) const VELLUM_REQUIRES_SHARED(lock)
    {
        List const* pairs = &list;
        index.forEach([&](std::uint32_t position) { return visit(pairs->at(position)); },
                      [&](std::uint32_t position) { pairs->prefetch(position); });
    }

    // Keeps every key and value that is in the cache now where it is, also after it was removed, so that a snapshot can
    // be a copy of addresses and be read when the lock is free again. Made under the lock, shared at least; its end
    // takes the lock exclusively, some thousand removed entries at a time. Memory grows by what is removed meanwhile.
    class Pin {
      public:
        explicit Pin(LRUCache const& cache) VELLUM_REQUIRES_SHARED(cache.lock) : m_cache(cache) { ++cache.pins; }
        ~Pin() { m_cache.unpin(); }
        Pin(Pin const&) = delete;
        Pin& operator=(Pin const&) = delete;

      private:
        LRUCache const& m_cache;
    };

    // Shared for walks, upgrade for a decision, exclusive for changes. Where a family's entry lock is taken too, that
    // one comes first.
    mutable SharedMutex lock;

  protected:
    using List = UseList<K, V>;
    struct KeyAt {
        List* pairs;
        K const& operator()(std::uint32_t position) const { return pairs->at(position).first; }
    };

    void unpin() const {
        {
            ExclusiveLock const hold(lock);
            --pins;
        }
        dropParked();
    }
    void dropParked() const {
        constexpr unsigned int dropAtOnce = 128; // some thirty microseconds
        for (bool more = true; more;) {
            TurnLock const hold(lock);
            more = pins == 0 && list.dropParked(dropAtOnce);
        }
    }

    WatchedCount<std::uint32_t> size VELLUM_GUARDED_BY(lock);    // entries held now
    WatchedCount<std::uint64_t> evicted VELLUM_GUARDED_BY(lock); // entries that had to go for want of room
    std::uint32_t const capacity;                                // entries; fixed at birth, read without the lock
    mutable List list VELLUM_GUARDED_BY(lock);                   // const finds reorder it, under the exclusive lock
    OrderedIndex<K, KeyAt> index VELLUM_GUARDED_BY(lock);
    // Pins alive. Raised under a shared hold, so an atomic; read and lowered under the exclusive one.
    mutable std::atomic<std::uint32_t> pins{0};
};

} // namespace Vellum
