// All endpoints of the process: entries of the subscribers seen lately, the blacklist and the exempt list.
#pragma once

#include "foundation/MSISDN.h"
#include "include2/KeyOrder.h"
#include "include2/LRUCache.h"
#include "mmsreputation/Entry.h"

#include <boost/container/flat_set.hpp>

#include <set>
#include <string>

namespace Vellum {

// Numbers are told apart by their first 16 characters, nearly always.
template <>
struct KeyOrder<MSISDN> {
    static OrderPrefix prefix(MSISDN const& number) {
        OrderPrefixWriter writer;
        writer.bytes(number.asString().data(), number.asString().size());
        return writer.prefix();
    }
    static int compare(MSISDN const& a, MSISDN const& b) { return a.asString().compare(b.asString()); }
};

} // namespace Vellum

namespace Vellum::MMSReputation {

// Threads: the lock of LRUCache guards the entries' list and both number lists; Entry::s_mutex guards what is inside
// entries. Order: Entry::s_mutex, then this cache's lock.
//
// An entry is only evicted or removed from the cache; whoever holds its RefEntry may go on using it.
class Cache : public LRUCache<MSISDN, RefEntry> {
  public:
    static constexpr std::uint32_t mostEntries = 10000; // Configuration::maxEntries() does not change it

    Cache() : LRUCache(mostEntries) {}

    using LRUCache::find;
    // The place of a number's entry; end() when it is absent and not to be created. Counts as a use. With a `slice`
    // other than 0 the entry's records that are too old to be scored there are dropped.
    // Takes the cache's lock exclusively, then, when that is free again, Entry::s_mutex exclusively. So the place holds
    // only until somebody else changes the cache: use it under the lock, or use entry().
    iterator find(MSISDN const& number, std::uint32_t slice, bool create) const;
    // The same as a handle, which stays good; an empty one for an absent entry.
    RefEntry entry(MSISDN const& number, std::uint32_t slice, bool create) const;

    // Adds a number to a list; one that is there stays. Exclusive.
    void blacklist(MSISDN const& number);
    void exempt(MSISDN const& number);
    // Makes `out` a copy of a list. Shared.
    void blacklist(std::set<MSISDN>& out) const;
    void exempt(std::set<MSISDN>& out) const;
    // Makes a list of this cache a copy of the other cache's; the same cache stays as it is. Shared there, then
    // exclusive here.
    void copyBlacklist(Cache const& from);
    void copyExempt(Cache const& from);

    // How many numbers a list holds. Shared.
    std::size_t blacklistSize() const;
    std::size_t exemptSize() const;

    // Whether a number is listed. They walk the list from the smallest number on and compare with ==, not with the
    // order, so the cost grows with the list (docs/performance.md). Shared; a decision may ask.
    bool isBlacklisted(MSISDN const& number) const;
    bool isExempt(MSISDN const& number) const;

    // Drops every entry that is neither blacklisted at `now` (seconds since the epoch, 0 for now; at exactly its expiry
    // it still is) nor has a score in the current slice. With `lock` both locks are taken, one after the other, never
    // together; without, the caller holds both, the cache's exclusively.
    // Throws Exception when no configuration is installed.
    void purge(bool lock, long now = 0);

    // A cache that does not hold all entries of the tables must never be written over them. Its loader says so, with
    // the reason; an administrator may take it as it is: true when it was not whole. A new cache is. Exclusive.
    void missesEntries(std::string const& why);
    bool takeAsWhole();
    // Empty for a whole cache. Shared.
    std::string whyNotWhole() const;

  private:
    using Numbers = boost::container::flat_set<MSISDN>; // in one piece of memory: a walk is its only search

    static bool isListed(Numbers const& list, MSISDN const& number);
    void purgeLocked(long now, std::uint32_t slice) VELLUM_REQUIRES(lock)
    VELLUM_REQUIRES_SHARED(Entry::s_mutex);
    void purgeUnlocked(long now, std::uint32_t slice);

    Numbers m_exempt VELLUM_GUARDED_BY(lock);
    Numbers m_blacklist VELLUM_GUARDED_BY(lock);
    std::string m_whyNotWhole VELLUM_GUARDED_BY(lock); // empty: it is
};

} // namespace Vellum::MMSReputation
