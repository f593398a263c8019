// The process's endpoint cache, as handlers and backups use it, for one test: fresh, and with a configuration of its
// own.
#pragma once

#include "mmsreputation/RefCache.h"
#include "tests/support/CapturingLogger.h"
#include "tests/support/EndpointConfiguration.h"
#include "tests/support/EndpointEntries.h"

#include <gtest/gtest.h>

namespace Vellum::MMSReputation {

// Loads nothing.
struct EmptySource : EntrySource {
    void read(RefCache&, unsigned int) override {}
};

// To be a base of a fixture.
class LoadedEndpoints {
  protected:
    LoadedEndpoints() { startAfresh(); }

    // Another empty cache becomes the process's.
    void startAfresh() {
        EmptySource source;
        m_cache = RefCache::instance(&source, Select::everything);
        m_log.clear();
    }
    RefEntry add(MSISDN const& number) { return m_cache->entry(number, 0, true); }
    RefEntry add(unsigned int n) { return add(subscriber(n)); }
    RefEntry add(unsigned int n, std::uint32_t slice, std::uint32_t spam, std::uint32_t infected, long expiry = 0) {
        RefEntry const entry = add(n);
        ExclusiveLock const hold(Entry::s_mutex);
        entry->add(Period(slice), Entry::Record(spam, infected));
        entry->blacklistExpiry(expiry);
        return entry;
    }
    // The slice of now; a test that runs over the end of one sees the next.
    static std::uint32_t currentSlice() { return Period(0, 30, 15).index; }

    CapturingLogger m_log;
    InstalledConfiguration m_configuration;
    RefCache m_cache{false};
};

} // namespace Vellum::MMSReputation
