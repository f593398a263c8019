#include "mmsreputation/Cache.h"

#include <algorithm>
#include <ctime>
#include <utility>
#include <vector>

namespace Vellum::MMSReputation {
namespace {

bool isBlacklistedAt(long expiry, long now) {
    return expiry != 0 && now <= expiry;
}

// Drops what can never be scored again at that slice.
void dropUnscored(RefEntry const& entry, std::uint32_t slice) {
    if (slice == 0 || entry.isNull()) {
        return;
    }
    ExclusiveLock const hold(Entry::s_mutex);
    entry->purgeRecords(slice - Entry::scoredBefore);
}

} // namespace

Cache::iterator Cache::find(MSISDN const& number, std::uint32_t slice, bool create) const {
    iterator position;
    RefEntry found;
    {
        ExclusiveLock const hold(lock);
        position = findNoLock(number);
        if (position != end()) {
            found = position->second; // the place may be gone when the lock is
        }
    }
    if (position != end()) {
        dropUnscored(found, slice);
        return position;
    }
    if (!create) {
        return end();
    }
    // The cache is the mutable state behind a const handle, as the recency order is behind find().
    const_cast<Cache*>(this)->add(number, RefEntry(true));
    return find(number);
}

RefEntry Cache::entry(MSISDN const& number, std::uint32_t slice, bool create) const {
    RefEntry found;
    {
        ExclusiveLock const hold(lock);
        iterator position = findNoLock(number);
        if (position == end() && create) {
            const_cast<Cache*>(this)->addNoLock(number, RefEntry(true));
            position = findNoLock(number);
        }
        if (position != end()) {
            found = position->second;
        }
    }
    dropUnscored(found, slice);
    return found;
}

void Cache::blacklist(MSISDN const& number) {
    ExclusiveLock const hold(lock);
    m_blacklist.insert(number);
}

void Cache::exempt(MSISDN const& number) {
    ExclusiveLock const hold(lock);
    m_exempt.insert(number);
}

void Cache::blacklist(std::set<MSISDN>& out) const {
    SharedLock const hold(lock);
    out = {m_blacklist.begin(), m_blacklist.end()};
}

void Cache::exempt(std::set<MSISDN>& out) const {
    SharedLock const hold(lock);
    out = {m_exempt.begin(), m_exempt.end()};
}

void Cache::copyBlacklist(Cache const& from) {
    Numbers copy;
    {
        SharedLock const hold(from.lock);
        copy = from.m_blacklist;
    }
    ExclusiveLock const hold(lock);
    m_blacklist.swap(copy);
}

void Cache::copyExempt(Cache const& from) {
    Numbers copy;
    {
        SharedLock const hold(from.lock);
        copy = from.m_exempt;
    }
    ExclusiveLock const hold(lock);
    m_exempt.swap(copy);
}

std::size_t Cache::blacklistSize() const {
    SharedLock const hold(lock);
    return m_blacklist.size();
}

std::size_t Cache::exemptSize() const {
    SharedLock const hold(lock);
    return m_exempt.size();
}

// Both in upgrade mode, which passes by writers that wait for a listing's end: decisions ask.
bool Cache::isBlacklisted(MSISDN const& number) const {
    UpgradeLock const hold(lock);
    return isListed(m_blacklist, number);
}

bool Cache::isExempt(MSISDN const& number) const {
    UpgradeLock const hold(lock);
    return isListed(m_exempt, number);
}

bool Cache::isListed(Numbers const& list, MSISDN const& number) {
    return std::find(list.begin(), list.end(), number) != list.end();
}

void Cache::missesEntries(std::string const& why) {
    ExclusiveLock const hold(lock);
    m_whyNotWhole = why;
}

bool Cache::takeAsWhole() {
    ExclusiveLock const hold(lock);
    return !std::exchange(m_whyNotWhole, {}).empty();
}

std::string Cache::whyNotWhole() const {
    SharedLock const hold(lock);
    return m_whyNotWhole;
}

void Cache::purge(bool lockBoth, long now) VELLUM_NO_THREAD_SAFETY_ANALYSIS {
    long const time = now == 0 ? std::time(nullptr) : now;
    std::uint32_t const slice = Period(time, 0, Period::slicesPerWindow).index;
    if (lockBoth) {
        purgeUnlocked(time, slice);
    } else {
        purgeLocked(time, slice);
    }
}

void Cache::purgeLocked(long now, std::uint32_t slice) {
    std::vector<MSISDN> dead;
    for (auto position = list.front(); position != List::none; position = list.after(position)) {
        auto const& [number, entry] = list.at(position);
        if (entry.isNull() || (!isBlacklistedAt(entry->blacklistExpiry(), now) && entry->_score(slice) == 0)) {
            dead.push_back(number);
        }
    }
    for (MSISDN const& number : dead) {
        removeNoLock(number);
    }
}

void Cache::purgeUnlocked(long now, std::uint32_t slice) {
    std::vector<std::pair<MSISDN, RefEntry>> candidates; // scored later: Entry::s_mutex is never taken behind `lock`
    {
        SharedLock const hold(lock);
        for (auto position = list.front(); position != List::none; position = list.after(position)) {
            auto const& [number, entry] = list.at(position);
            if (entry.isNull() || !isBlacklistedAt(entry->blacklistExpiry(), now)) {
                candidates.emplace_back(number, entry);
            }
        }
    }
    for (auto const& [number, entry] : candidates) {
        if (entry.isNull() || entry->score(slice, true) == 0) {
            remove(number);
        }
    }
}

} // namespace Vellum::MMSReputation
