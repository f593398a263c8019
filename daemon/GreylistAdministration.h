// Backup and restore on an administrator's request: of the greylist, of sender reputation and of endpoints.
#pragma once

#include "daemon/AdminServices.h"
#include "foundation/Locks.h"

#include <atomic>
#include <functional>
#include <set>
#include <sys/types.h>
#include <utility>

namespace Vellum::Daemon {

// The part of the services that the library does; the daemon adds what only it knows.
//
// A restore replaces the tables and then loads the caches from them. A backup in between would put the old records
// back, so no backup may begin while restoreRunning() (the daemon's configuration asks it, backupNow() refuses), and a
// restore waits for backups that run before it begins.
class GreylistAdministration : public AdminServices {
  public:
    // Waits until the database daemon has the script, at most some minutes.
    GreyList::BackupReport backupNow() override;
    Reputation::BackupReport backUpReputations() override;
    MMSReputation::BackupReport backUpEndpoints() override;

    // Throws Exception when the file is none that is restored (OpenedScript.h) or the database cannot be asked.
    RestorePreview previewRestore(std::string const& path) override;
    // One at a time, of the file as it was looked at. All or nothing as far as the tables go. The script says which
    // family's tables it replaces; sender reputation's cache is emptied before it is loaded from replaced tables, since
    // a load by itself only adds to it.
    RestoreOutcome restore(std::string const& path, RestoreProgress const& progress) override;

    bool restoreRunning() const { return m_restoring; }

    // Users, besides root and the process's own, whose scripts are restored: those who may ask for it. Call it before
    // anybody asks.
    void restoreScriptsOf(std::set<uid_t> users) { m_mayAsk = std::move(users); }

  protected:
    // Runs `work`, which loads tables, unless a restore or a backup on demand is in hand.
    void unlessTablesAreInHand(std::function<void()> const& work);
    // The caches hold what the tables held, or the load has failed; LoadReport.h says which.
    virtual void cachesLoaded() = 0;

  private:
    // Runs `make`, which leaves a report; one at a time, and none beside a restore.
    template <class Report, class Make>
    Report backUp(Make make);

    std::set<uid_t> m_mayAsk;
    Mutex m_inHand; // held by an operation that makes or replaces the tables' rows
    std::atomic<bool> m_restoring{false};
};

} // namespace Vellum::Daemon
