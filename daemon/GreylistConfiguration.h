// The times and sizes of greylisting, as the settings give them.
#pragma once

#include "daemon/Settings.h"
#include "greylist/Configuration.h"

#include <functional>

namespace Vellum::Daemon {

// Immutable. New settings are a new object, which RefConfiguration::instance() puts in the old one's place: the next
// decision reads all of the new values, and one that is under way keeps the object it has.
class GreylistConfiguration : public GreyList::Configuration {
  public:
    // `mayBackUp` answers whether the caches hold what the tables held, so that a backup loses nothing; it is asked at
    // each hourly backup, on the job table's thread. `onBackupDone` is told when the database daemon was asked,
    // whatever it answered, on the backup's thread. Both may be empty; an empty `mayBackUp` means yes.
    GreylistConfiguration(GreylistSettings settings, std::string backupFile, std::function<bool()> mayBackUp = {},
                          std::function<void()> onBackupDone = {});

    int initialExpiryHours() const override { return m_settings.firstLifeHours; }
    int ttlDays() const override { return m_settings.lifeDays; }
    int greylistMinutes() const override { return m_settings.delayMinutes; }
    std::string backupPath() const override { return m_backupFile; }
    void backupDone() override;
    bool backupEnabled() const override { return m_settings.backup && (!m_mayBackUp || m_mayBackUp()); }
    int maxRecords() const override { return m_settings.maxRecords; }

  private:
    GreylistSettings const m_settings;
    std::string const m_backupFile;
    std::function<bool()> const m_mayBackUp;
    std::function<void()> const m_onBackupDone;
};

} // namespace Vellum::Daemon
