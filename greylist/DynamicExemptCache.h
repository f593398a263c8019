// Automatic exemptions: (network, domain) pairs whose mail need not wait any more.
#pragma once

#include "greylist/DynamicExemptId.h"
#include "greylist/Status.h"
#include "include2/LRUCache.h"

#include <boost/shared_ptr.hpp>

#include <string>

namespace Vellum::GreyList {

// All exemptions of the process. They enter through add() only; exempt() never makes one. Of a Status only `expiry` is
// used: unlike a tuple, an exemption whose expiry is exactly now is dead.
class _DynamicExemptCache : public LRUCache<DynamicExemptId, Status> {
  public:
    // Capacity: Configuration::maxRecords() as it is now. Throws Exception when no configuration is installed.
    _DynamicExemptCache();

    // 1 when the pair is exempt at `now` (seconds since the epoch), and its life is extended by ttlDays(); else 0, and
    // a dead record is removed. Does not count as a use.
    // Thread-safe: takes the lock exclusively.
    int exempt(IPAddressMask const& mask, std::string const& domain, long now) const;
    // The same, without a copy of the domain.
    int exempt(DynamicExemptParts const& pair, long now) const;
    // The same for a decision that must not wait for readers: takes upgrade mode, and leaves a dead record where it is.
    bool exemptAtOnce(DynamicExemptParts const& pair, long now) const;
    // Until when the pair is exempt (seconds since the epoch), 0 when it is not; changes nothing. Takes the lock
    // shared.
    long exemptUntil(DynamicExemptParts const& pair, long now) const;
};

// The process-wide handle.
class DynamicExemptCache {
  public:
    DynamicExemptCache() : m_impl(new _DynamicExemptCache()) {}
    virtual ~DynamicExemptCache() = default;

    // The flag is ignored.
    static DynamicExemptCache* instance(bool = true);

    _DynamicExemptCache* operator->() const { return m_impl.get(); }
    _DynamicExemptCache& operator*() const { return *m_impl; }

  private:
    boost::shared_ptr<_DynamicExemptCache> m_impl;
};

} // namespace Vellum::GreyList
