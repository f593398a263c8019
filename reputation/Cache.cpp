#include "reputation/Cache.h"

#include "include2/CacheSingleton.h"

namespace Vellum::Reputation {

Cache::iterator Cache::find(IPAddress const& address) const {
    ExclusiveLock const hold(lock);
    return findOrCreateNoLock(address);
}

RefEntry Cache::entry(IPAddress const& address) const {
    ExclusiveLock const hold(lock);
    return findOrCreateNoLock(address)->second;
}

Cache::iterator Cache::findOrCreateNoLock(IPAddress const& address) const {
    iterator const found = findNoLock(address);
    if (found != end()) {
        return found;
    }
    IPAddress const key(address.asIpAddr());
    // The cache is the mutable state behind a const handle, as the recency order is behind findNoLock().
    const_cast<Cache*>(this)->addNoLock(key, RefEntry(true));
    return findNoLock(key);
}

RefCache* RefCache::instance(bool) {
    return cacheSingleton<RefCache>();
}

} // namespace Vellum::Reputation
