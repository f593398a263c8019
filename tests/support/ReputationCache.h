// The process's reputation cache, as handlers use it, empty for one test, and looks into it.
#pragma once

#include "reputation/Cache.h"
#include "tests/support/CapturingLogger.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

namespace Vellum::Reputation {

inline IPAddress ip(std::string const& text) {
    return IPAddress(text);
}
// The n-th of many different IPv4 addresses, ascending.
inline IPAddress ip(unsigned int n) {
    return {0x0A000000U + n, false};
}

inline Entry::Records recordsOf(RefEntry const& entry) {
    SharedLock const hold(Entry::s_lock);
    return entry->records();
}
inline std::uint32_t scoreOf(Entry const& entry, long now, unsigned int firstPeriod) {
    SharedLock const hold(Entry::s_lock);
    return entry.score(now, firstPeriod);
}

class ReputationCache : public testing::Test {
  protected:
    ReputationCache() {
        m_cache.clear();
        m_log.clear();
    }

    static bool holds(Cache const& cache, IPAddress const& client) {
        SharedLock const hold(cache.lock);
        return cache.lookup(client) != cache.end();
    }
    static std::uint32_t sizeOf(Cache const& cache) {
        SharedLock const hold(cache.lock);
        return cache.sizeNoLock();
    }
    // Everything in the cache, in key order: "address state: period=m/r/iv/inf/spam ...".
    std::vector<std::string> held() const {
        std::vector<std::string> all;
        SharedLock const holdEntries(Entry::s_lock);
        SharedLock const holdCache(m_cache.lock);
        m_cache.forEachInKeyOrder([&](Cache::Pair const& pair) VELLUM_NO_THREAD_SAFETY_ANALYSIS {
            std::string text =
                pair.first.asString() + ' ' + std::to_string(static_cast<std::uint32_t>(pair.second->state())) + ':';
            for (auto const& [period, record] : pair.second->records()) {
                text += ' ' + std::to_string(period) + '=' + std::to_string(record.messageCount) + '/' +
                        std::to_string(record.recipients) + '/' + std::to_string(record.invalidRecipients) + '/' +
                        std::to_string(record.infected) + '/' + std::to_string(record.spam);
            }
            all.push_back(text);
            return true;
        });
        return all;
    }

    CapturingLogger m_log;
    Cache& m_cache = **RefCache::instance();
};

} // namespace Vellum::Reputation
