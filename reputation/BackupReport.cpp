#include "reputation/BackupReport.h"

#include "foundation/Latest.h"

namespace Vellum::Reputation {

BackupReport BackupReport::last() {
    return latestOfProcess<BackupReport>().get();
}

void BackupReport::set(BackupReport const& report) {
    latestOfProcess<BackupReport>().set(report);
    Vellum::Database::tallyBackup("reputation", report);
}

void BackupReport::setFailed(std::string const& problem) {
    set(Vellum::Database::failedBackup<BackupReport>(problem));
}

} // namespace Vellum::Reputation
