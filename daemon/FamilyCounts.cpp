#include "daemon/FamilyCounts.h"

#include "mmsreputation/RefCache.h"

namespace Vellum::Daemon {

void FamilyCounts::countEndpoints(long now) {
    autoBlacklistedEndpoints = blacklistedEndpoints = exemptEndpoints = 0;
    MMSReputation::RefCache const cache = MMSReputation::RefCache::instance(nullptr, MMSReputation::Select::everything);
    if (cache.isNull()) {
        return;
    }
    blacklistedEndpoints = cache->blacklistSize();
    exemptEndpoints = cache->exemptSize();
    SharedLock const hold(cache->lock);
    cache->forEachInKeyOrder([&](auto const& pair) {
        long const expiry = pair.second.isNull() ? 0 : pair.second->blacklistExpiry();
        autoBlacklistedEndpoints += expiry != 0 && now <= expiry ? 1 : 0;
        return true;
    });
}

} // namespace Vellum::Daemon
