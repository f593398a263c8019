#include "greylist/BackupReport.h"

#include "foundation/Latest.h"

namespace Vellum::GreyList {

BackupReport BackupReport::last() {
    return latestOfProcess<BackupReport>().get();
}

void BackupReport::set(BackupReport const& report) {
    latestOfProcess<BackupReport>().set(report);
    Database::tallyBackup("greylist", report);
}

void BackupReport::setFailed(std::string const& problem) {
    set(Database::failedBackup<BackupReport>(problem));
}

} // namespace Vellum::GreyList
