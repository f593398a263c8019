// Where sender reputation is backed up, and whether, as the settings give it.
#pragma once

#include "daemon/Settings.h"
#include "reputation/Configuration.h"

#include <atomic>
#include <functional>
#include <string>
#include <utility>

namespace Vellum::Daemon {

// Installed for its life.
class ReputationConfiguration final : public Reputation::Configuration {
  public:
    // `mayBackUp` answers whether the cache holds what the tables held, so that a backup loses nothing; it is asked at
    // each hourly backup, on the job table's thread. `onBackupDone` is told when the database daemon was asked,
    // whatever it answered; it may be empty.
    ReputationConfiguration(ReputationSettings const& settings, std::string backupFile, std::function<bool()> mayBackUp,
                            std::function<void()> onBackupDone = {})
        : m_backupFile(std::move(backupFile)), m_mayBackUp(std::move(mayBackUp)),
          m_onBackupDone(std::move(onBackupDone)), m_backup(settings.backup) {
        s_instance = this;
    }
    ~ReputationConfiguration() { s_instance = nullptr; }
    ReputationConfiguration(ReputationConfiguration const&) = delete;
    ReputationConfiguration& operator=(ReputationConfiguration const&) = delete;

    // Takes over what may change while the daemon runs.
    void change(ReputationSettings const& settings) { m_backup = settings.backup; }

    std::string const& backupPath() const override { return m_backupFile; }
    void backupDone() override {
        if (m_onBackupDone) {
            m_onBackupDone();
        }
    }
    bool backupEnabled() const override { return m_backup && m_mayBackUp(); }

  private:
    std::string const m_backupFile;
    std::function<bool()> const m_mayBackUp;
    std::function<void()> const m_onBackupDone;
    std::atomic<bool> m_backup;
};

} // namespace Vellum::Daemon
