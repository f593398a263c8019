// The times and the backup of endpoint reputation, as the settings give them.
#pragma once

#include "daemon/EndpointSettings.h"
#include "daemon/HighAvailability.h"
#include "mmsreputation/Cache.h"
#include "mmsreputation/Configuration.h"

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <utility>

namespace Vellum::Daemon {

// Installed for its life.
class EndpointConfiguration final : public MMSReputation::Configuration {
  public:
    // `mayBackUp` answers whether this unit is the active one and the tables may be replaced; it is asked at each
    // hourly backup, on the job table's thread; empty: it may. `pair` is told of backups; it may be null.
    EndpointConfiguration(EndpointSettings const& settings, std::string backupFile,
                          std::function<bool()> mayBackUp = {}, std::shared_ptr<HighAvailability> pair = nullptr)
        : m_backupFile(std::move(backupFile)), m_mayBackUp(std::move(mayBackUp)), m_pair(std::move(pair)),
          m_windowMinutes(settings.windowMinutes), m_enabled(settings.enabled), m_backup(settings.backup) {
        s_instance = this;
    }
    ~EndpointConfiguration() override { s_instance = nullptr; }

    // Takes over what may change while the daemon runs. The window may not: slices that were counted would mean other
    // times.
    void change(EndpointSettings const& settings) {
        m_enabled = settings.enabled;
        m_backup = settings.backup;
    }

    std::string const& fnameBackup() const override { return m_backupFile; }
    void resyncIfMaster() const override {
        if (m_pair) {
            m_pair->resync("endpoint");
        }
    }
    bool haMaster() const override { return m_backup && (!m_mayBackUp || m_mayBackUp()); }
    unsigned int maxEntries() const override { return MMSReputation::Cache::mostEntries; }
    unsigned int windowSize() const override { return m_windowMinutes; }
    bool enabled() const override { return m_enabled; }

  private:
    std::string const m_backupFile;
    std::function<bool()> const m_mayBackUp;
    std::shared_ptr<HighAvailability> const m_pair;
    unsigned int const m_windowMinutes;
    std::atomic<bool> m_enabled;
    std::atomic<bool> m_backup;
};

} // namespace Vellum::Daemon
