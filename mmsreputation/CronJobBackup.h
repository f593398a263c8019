// The hourly backup of endpoint reputation, and the restore of a saved script.
#pragma once

#include "foundation/cron/Job.h"

#include <string>

namespace Vellum::MMSReputation {

// The periodic job: starts a backup when this unit is the master of its pair. Never waits for the database.
class CronJobBackup : public Cron::JobImpl {
  public:
    // 0, or -1 after a logged failure (0x300017F).
    int task() const override;
};

// Starts a backup on a detached thread and returns 0 at once; one runs at a time, see DetachedBackup.h. Failures are
// logged (0x3000183).
int backupEntries();

// Runs the script at `file` against the database, all or nothing; the cache is not loaded again. Answers 0, also when
// the script itself fails (that is logged); -1 when the database cannot be reached (0x3000183).
int restoreEntries(std::string const& file);
int restoreEntries(char const* file);

} // namespace Vellum::MMSReputation
