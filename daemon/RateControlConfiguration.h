// The size of sender rate control, as the settings give it.
#pragma once

#include "daemon/Settings.h"
#include "senderratecontrol/Configuration.h"

namespace Vellum::Daemon {

// Installed for its life.
class RateControlConfiguration : public SenderRateControl::Configuration {
  public:
    explicit RateControlConfiguration(RateControlSettings const& settings) : m_settings(settings) { s_instance = this; }
    ~RateControlConfiguration() override { s_instance = nullptr; }
    RateControlConfiguration(RateControlConfiguration const&) = delete;
    RateControlConfiguration& operator=(RateControlConfiguration const&) = delete;

    std::uint32_t cacheSize() const override { return m_settings.maxSenders; }

  private:
    RateControlSettings const m_settings;
};

} // namespace Vellum::Daemon
