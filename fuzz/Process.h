// What the whole process has one of: configurations and caches, for targets that run what uses them.
#pragma once

#include "tests/support/EndpointConfiguration.h"
#include "tests/support/GreylistConfiguration.h"

#include "greylist/DynamicExemptCache.h"
#include "greylist/TupleCache.h"
#include "mmsreputation/RefCache.h"
#include "reputation/Cache.h"
#include "senderratecontrol/Configuration.h"
#include "senderratecontrol/SenderRateControlCache.h"

#include <cstdint>

namespace Vellum::Fuzz {

class RateConfiguration : public SenderRateControl::Configuration {
  public:
    static constexpr std::uint32_t senders = 100;

    RateConfiguration() { s_instance = this; }
    ~RateConfiguration() override { s_instance = nullptr; }
    std::uint32_t cacheSize() const override { return senders; }
};

// The configurations of all families, and no database: whoever wants one is refused at once. Made once.
class Process {
  public:
    static constexpr int records = 100; // of the greylist's caches
    static Process& instance();

    // Empties the caches of all families.
    void startAfresh();

  private:
    Process();

    GreyList::InstalledConfiguration m_greylist{records};
    MMSReputation::InstalledConfiguration m_endpoints;
    RateConfiguration m_rates;
};

} // namespace Vellum::Fuzz
