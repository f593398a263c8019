#include "greylist/DynamicExemptCache.h"

#include "greylist/Configuration.h"
#include "include2/CacheSingleton.h"

#include <algorithm>

namespace Vellum::GreyList {

_DynamicExemptCache::_DynamicExemptCache()
    : LRUCache(static_cast<std::uint32_t>(std::max(0, RefConfiguration::instance(nullptr)->maxRecords()))) {}

int _DynamicExemptCache::exempt(IPAddressMask const& mask, std::string const& domain, long now) const {
    return exempt({mask, domain}, now);
}

int _DynamicExemptCache::exempt(DynamicExemptParts const& pair, long now) const {
    ExclusiveLock const hold(lock);
    iterator const found = lookup(pair);
    if (found == end()) {
        return 0;
    }
    if (found->second.expiry > now) {
        found->second.expiry = now + RefConfiguration::instance(nullptr)->ttlDays() * 86400L;
        return 1;
    }
    const_cast<_DynamicExemptCache*>(this)->removeNoLock(found->first);
    return 0;
}

bool _DynamicExemptCache::exemptAtOnce(DynamicExemptParts const& pair, long now) const {
    UpgradeLock const hold(lock);
    iterator const found = lookup(pair);
    if (found == end() || found->second.expiry <= now) {
        return false;
    }
    found->second.expiry = now + RefConfiguration::instance(nullptr)->ttlDays() * 86400L;
    return true;
}

long _DynamicExemptCache::exemptUntil(DynamicExemptParts const& pair, long now) const {
    SharedLock const hold(lock);
    iterator const found = lookup(pair);
    return found != end() && found->second.expiry > now ? static_cast<long>(found->second.expiry) : 0;
}

DynamicExemptCache* DynamicExemptCache::instance(bool) {
    return cacheSingleton<DynamicExemptCache>();
}

} // namespace Vellum::GreyList
