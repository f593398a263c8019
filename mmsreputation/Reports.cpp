#include "mmsreputation/Reports.h"

#include "foundation/Latest.h"

namespace Vellum::MMSReputation {
namespace {

Latest<LoadReport>& lastLoad() {
    static Latest<LoadReport>& latest = *new Latest<LoadReport>; // detached threads may outlive main()
    return latest;
}

Latest<BackupReport>& lastBackup() {
    static Latest<BackupReport>& latest = *new Latest<BackupReport>;
    return latest;
}

} // namespace

LoadReport LoadReport::last() {
    return lastLoad().get();
}

void LoadReport::set(LoadReport const& report) {
    lastLoad().set(report);
}

BackupReport BackupReport::last() {
    return lastBackup().get();
}

void BackupReport::set(BackupReport const& report) {
    lastBackup().set(report);
}

void BackupReport::setFailed(std::string const& problem) {
    set(Vellum::Database::failedBackup<BackupReport>(problem));
}

} // namespace Vellum::MMSReputation
