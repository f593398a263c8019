#include "greylist/TupleCache.h"

#include "foundation/Logger.h"
#include "greylist/Configuration.h"
#include "greylist/LogCodes.h"
#include "include2/CacheSingleton.h"

#include <algorithm>

namespace Vellum::GreyList {
namespace {

constexpr long secondsPerMinute = 60;
constexpr long secondsPerHour = 3600;
constexpr long secondsPerDay = 86400;

// Each is read afresh, so that a new configuration holds at once.
RefConfiguration configuration() {
    return RefConfiguration::instance(nullptr);
}
long firstLife() {
    return configuration()->initialExpiryHours() * secondsPerHour;
}
long delay() {
    return configuration()->greylistMinutes() * secondsPerMinute;
}
long life() {
    return configuration()->ttlDays() * secondsPerDay;
}

TupleId const& identityOf(TupleId const& id) {
    return id;
}
TupleId identityOf(TupleParts const& parts) {
    return TupleId(parts);
}

} // namespace

bool isWaiting(Status const& status, long firstLife) {
    long const granted = status.expiry - status.firstSeen;
    return status.initialLifetime != 0 ? granted == status.initialLifetime : granted <= firstLife;
}

_TupleCache::_TupleCache() : LRUCache(static_cast<std::uint32_t>(std::max(0, configuration()->maxRecords()))) {
    Logger::instance(false).log(LogCode::cacheCreated, 0, "%d", configuration()->maxRecords());
}

int _TupleCache::state(TupleId const& id, long now) const {
    return decide(id, now).passed() ? 1 : 0;
}

TupleDecision _TupleCache::decide(TupleId const& id, long now) const {
    return decideFor(id, now);
}

TupleDecision _TupleCache::decide(TupleParts const& tuple, long now) const {
    return decideFor(tuple, now);
}

template <class Key>
TupleDecision _TupleCache::decideFor(Key const& key, long now) const {
    using Situation = TupleDecision::Situation;
    UpgradeLock hold(lock);
    iterator const found = lookup(key);
    if (found == end()) {
        long const lifetime = firstLife();
        Status const status(now, now + lifetime, lifetime);
        auto const& id = identityOf(key);
        hold.promote();
        // The cache is the mutable state behind a const handle, as the recency order is behind find().
        const_cast<_TupleCache*>(this)->addNoLock(id, status);
        return {Situation::fresh, false, now, now + delay(), status.expiry};
    }
    Status& status = found->second;
    if (now > status.expiry) {
        long const lifetime = firstLife();
        hold.promote();
        status.firstSeen = now;
        status.initialLifetime = lifetime;
        status.expiry = lifetime + status.firstSeen;
        return {Situation::expired, false, now, now + delay(), status.expiry};
    }
    long const passTime = status.firstSeen + delay();
    if (now < passTime) {
        return {Situation::early, false, status.firstSeen, passTime, status.expiry};
    }
    // Only a loaded record needs the setting, and reading it is half of the cost here.
    bool const firstPass = isWaiting(status, status.initialLifetime != 0 ? 0 : firstLife());
    status.expiry = now + life(); // upgrade mode suffices: see Status::expiry
    return {Situation::passes, firstPass, status.firstSeen, passTime, status.expiry};
}

TupleDecision _TupleCache::preview(TupleParts const& tuple, long now) const {
    using Situation = TupleDecision::Situation;
    SharedLock const hold(lock);
    iterator const found = lookup(tuple);
    if (found == end() || now > found->second.expiry) {
        return {found == end() ? Situation::fresh : Situation::expired, false, now, now + delay(), now + firstLife()};
    }
    Status const& status = found->second;
    long const passTime = status.firstSeen + delay();
    if (now < passTime) {
        return {Situation::early, false, status.firstSeen, passTime, status.expiry};
    }
    return {Situation::passes, isWaiting(status, firstLife()), status.firstSeen, passTime, now + life()};
}

bool _TupleCache::release(TupleParts const& tuple, long now) {
    long const firstSeen = now - delay();
    Status const released(firstSeen, firstSeen + firstLife(), firstLife());
    ExclusiveLock const hold(lock);
    iterator const found = lookup(tuple);
    if (found == end()) {
        addNoLock(TupleId(tuple), released);
        return true;
    }
    Status& status = found->second;
    if (now <= status.expiry && now >= status.firstSeen + delay()) {
        return false;
    }
    status = released;
    return true;
}

TupleCache* TupleCache::instance(bool) {
    return cacheSingleton<TupleCache>();
}

} // namespace Vellum::GreyList
