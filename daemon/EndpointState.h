// Endpoint reputation in the daemon: its configuration, its loads and its last backup.
//
// The library itself refuses to write a cache that misses entries of the tables over them; here loading is tried again
// until the cache holds everything.
#pragma once

#include "daemon/EndpointSettings.h"
#include "mmsreputation/Configuration.h"
#include "mmsreputation/RefCache.h"

#include <atomic>
#include <string>

namespace Vellum::Daemon {

// The process's endpoint configuration for its life. Made before the state is brought up, and gone after everything
// that uses endpoints: handlers, jobs, backups.
class EndpointState : public MMSReputation::Configuration {
  public:
    EndpointState(EndpointSettings const& settings, std::string backupFile);
    ~EndpointState() override;

    // New settings hold at once, but for the window: counted slices would mean other times. Thread-safe.
    void change(EndpointSettings const& settings);
    unsigned int windowMinutes() const { return m_windowMinutes; }

    std::string const& fnameBackup() const override { return m_backupFile; }
    void resyncIfMaster() const override {}
    bool haMaster() const override { return m_backup; }
    unsigned int maxEntries() const override { return MMSReputation::Cache::mostEntries; }
    unsigned int windowSize() const override { return m_windowMinutes; }
    bool enabled() const override { return m_enabled; }

    // What is wrong with the last load; empty when the cache holds all that the tables held. Thread-safe.
    static std::string loadProblem();
    // Loads again what the last load has missed, and keeps beside it what was counted meanwhile. Logs what comes of it.
    // Throws Exception when the server cannot be reached.
    static void tryAgain();

    // After everything else has ended. Waits for the database daemon. Logs how it went.
    void takeLastBackup() const;

  private:
    std::string const m_backupFile;
    unsigned int const m_windowMinutes;
    std::atomic<bool> m_enabled;
    std::atomic<bool> m_backup;
};

} // namespace Vellum::Daemon
