#include "mmsreputation/Reports.h"

#include "foundation/Latest.h"

namespace Vellum::MMSReputation {

std::string LoadReport::problem() const {
    for (Part const* part : {&entries, &exemptList, &blacklist}) {
        if (!part->loaded) {
            return part->problem.empty() ? "no load was tried yet" : part->problem;
        }
    }
    return {};
}

LoadReport LoadReport::last() {
    return latestOfProcess<LoadReport>().get();
}

void LoadReport::set(LoadReport const& report) {
    latestOfProcess<LoadReport>().set(report);
}

BackupReport BackupReport::last() {
    return latestOfProcess<BackupReport>().get();
}

void BackupReport::set(BackupReport const& report) {
    latestOfProcess<BackupReport>().set(report);
    Vellum::Database::tallyBackup("endpoint", report);
}

void BackupReport::setFailed(std::string const& problem) {
    set(Vellum::Database::failedBackup<BackupReport>(problem));
}

} // namespace Vellum::MMSReputation
