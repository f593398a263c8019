// The two caches of the process, as handlers use them, for one test: empty, and with a configuration of its own.
#pragma once

#include "greylist/DynamicExemptCache.h"
#include "greylist/TupleCache.h"
#include "tests/support/CapturingLogger.h"
#include "tests/support/GreylistConfiguration.h"
#include "tests/support/GreylistIdentities.h"

#include <gtest/gtest.h>

#include <vector>

namespace Vellum::GreyList {

class ProcessCaches : public testing::Test {
  public:
    static constexpr int capacity = 5000; // of whichever test comes first; caches are made once

  protected:
    ProcessCaches() {
        m_tuples.clear();
        m_exemptions.clear();
        m_log.clear();
    }

    template <class Cache, class Id>
    static bool holds(Cache const& cache, Id const& id) {
        SharedLock const hold(cache.lock);
        return cache.lookup(id) != cache.end();
    }
    template <class Cache>
    static std::uint32_t sizeOf(Cache const& cache) {
        SharedLock const hold(cache.lock);
        return cache.sizeNoLock();
    }

    CapturingLogger m_log;
    InstalledConfiguration m_configuration{capacity};
    _TupleCache& m_tuples = **TupleCache::instance();
    _DynamicExemptCache& m_exemptions = **DynamicExemptCache::instance();
};

} // namespace Vellum::GreyList
