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

TupleDecision _TupleCache::judge(iterator found, long now) const {
    using Situation = TupleDecision::Situation;
    if (found == end() || now > found->second.expiry) {
        TupleDecision anew;
        anew.situation = found == end() ? Situation::fresh : Situation::expired;
        anew.firstSeen = now;
        anew.passTime = now + delay();
        anew.expiry = now + firstLife();
        return anew;
    }
    Status const& status = found->second;
    TupleDecision known;
    known.firstSeen = status.firstSeen;
    known.passTime = known.firstSeen + delay();
    if (now < known.passTime) {
        known.situation = Situation::early;
        known.expiry = status.expiry;
        return known;
    }
    known.situation = Situation::passes;
    // Only a loaded record needs the setting, and reading it is half of the cost here.
    known.firstPass = isWaiting(status, status.initialLifetime != 0 ? 0 : firstLife());
    known.expiry = now + life();
    return known;
}

void _TupleCache::begin(iterator found, TupleId const& id, TupleDecision const& judged) const {
    Status const status(judged.firstSeen, judged.expiry, judged.expiry - judged.firstSeen);
    if (found == end()) {
        // The cache is the mutable state behind a const handle, as the recency order is behind find().
        const_cast<_TupleCache*>(this)->addNoLock(id, status);
    } else {
        found->second = status;
    }
}

template <class Key>
bool _TupleCache::tryDecide(Key const& key, long now, TupleDecision& decision) const {
    UpgradeLock hold(lock);
    iterator const found = lookup(key);
    decision = judge(found, now);
    if (decision.passed()) {
        found->second.expiry = decision.expiry; // upgrade mode suffices: see Status::expiry
    }
    if (!decision.begins()) {
        return true;
    }
    auto const& id = identityOf(key); // made while others may still read
    if (!hold.tryPromote()) {
        return false;
    }
    hold.promote();
    begin(found, id, decision);
    return true;
}

template <class Key>
TupleDecision _TupleCache::decideFor(Key const& key, long now) const {
    TupleDecision decision;
    if (tryDecide(key, now, decision)) {
        return decision;
    }
    // Waits without keeping other decisions from the cache, so it may have changed meanwhile.
    auto const& id = identityOf(key);
    ExclusiveLock const hold(lock);
    iterator const found = lookup(key);
    decision = judge(found, now);
    if (decision.passed()) {
        found->second.expiry = decision.expiry;
    }
    if (decision.begins()) {
        begin(found, id, decision);
    }
    return decision;
}

TupleDecision _TupleCache::decideAtOnce(TupleParts const& tuple, long now) const {
    TupleDecision decision;
    decision.isLate = !tryDecide(tuple, now, decision);
    return decision;
}

void _TupleCache::admit(TupleId const& id, long now) const {
    ExclusiveLock const hold(lock);
    iterator const found = lookup(id);
    TupleDecision const decision = judge(found, now);
    bool const isLater = found != end() && found->second.firstSeen > now && isWaiting(found->second, firstLife());
    if (decision.begins()) {
        begin(found, id, decision);
    } else if (isLater) {
        found->second = Status(now, now + firstLife(), firstLife());
    }
}

TupleDecision _TupleCache::preview(TupleParts const& tuple, long now) const {
    SharedLock const hold(lock);
    return judge(lookup(tuple), now);
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
