// The hourly backup of sender reputation, and the restore of a saved script.
#pragma once

#include "foundation/cron/Job.h"

namespace Vellum::Reputation {

// The periodic job: starts a backup when the configuration enables backups. Never waits for the database.
class CronJobBackup : public Cron::JobImpl {
  public:
    // 0, or -1 after a logged failure (0x3000189).
    int task() const override;
};

// Starts a backup on a detached thread and returns 0 at once. One runs at a time: a start while one is running makes
// one more run follow. Failures are logged (0x300018A).
int backupEntries();

// Runs the script at `path` against the database, all or nothing; the cache is not loaded again. Answers 0, also when
// the script itself fails (that is logged); -1 when the database cannot be reached (0x300018A).
int restoreEntries(char const* path);

} // namespace Vellum::Reputation
