// All senders that rate control knows: bounded, in memory only, the one unused for longest goes first.
#pragma once

#include "foundation/EmailAddress.h"
#include "include2/LRUCache.h"
#include "senderratecontrol/Configuration.h"
#include "senderratecontrol/Entry.h"

#include <boost/shared_ptr.hpp>

template <>
struct Vellum::KeyOrder<Vellum::EmailAddress> {
    static OrderPrefix prefix(EmailAddress const& address) {
        OrderPrefixWriter writer;
        writer.bytes(address.address().data(), address.address().size());
        return writer.prefix();
    }
    static int compare(EmailAddress const& a, EmailAddress const& b) { return a.address().compare(b.address()); }
};

namespace Vellum::SenderRateControl {

class Cache : public LRUCache<EmailAddress, RefEntry> {
  public:
    // Capacity: Configuration::cacheSize() as it is now; a later change resizes nothing.
    // Throws Exception when no configuration is installed.
    Cache();

    // The sender's place, made when it has none. Never end(): when there is no room, or the new entry was evicted at
    // once, it is a place outside of the cache, which stays valid until this thread meets the next such case.
    // Looking up and adding are two holds of the lock: of two threads that meet a new sender at once, the first to add
    // wins, and both find its entry.
    // The place is read without the lock, so only while nobody evicts or removes; entryOf() has no such condition.
    // Throws std::bad_alloc.
    iterator find(EmailAddress const& sender) const override;

    // The sender's entry, found or made in the same way, as a handle of the caller's own: it stays whatever others do.
    RefEntry entryOf(EmailAddress const& sender) const;

  private:
    // A handle on the cached entry, which thereby becomes the most recently used one; empty when there is none.
    RefEntry cached(EmailAddress const& sender) const;
    void addNew(EmailAddress const& sender, RefEntry const& entry) const;
};

// The process-wide handle.
class RefCache {
  public:
    RefCache() : m_cache(new Cache()) {}
    virtual ~RefCache() = default;

    // The flag is ignored. Throws what the constructor of Cache throws; the next call then tries again.
    static RefCache* instance(bool = true);

    Cache* operator->() const { return m_cache.get(); }
    Cache& operator*() const { return *m_cache; }
    bool isNull() const { return m_cache == nullptr; }
    explicit operator bool() const { return !isNull(); }

  private:
    boost::shared_ptr<Cache> m_cache;
};

} // namespace Vellum::SenderRateControl
