#include "reputation/BackupReport.h"

#include "foundation/Latest.h"

namespace Vellum::Reputation {
namespace {

Latest<BackupReport>& kept() {
    static Latest<BackupReport>& theReport = *new Latest<BackupReport>; // detached threads may outlive main()
    return theReport;
}

} // namespace

BackupReport BackupReport::last() {
    return kept().get();
}

void BackupReport::set(BackupReport const& report) {
    kept().set(report);
}

void BackupReport::setFailed(std::string const& problem) {
    set(Vellum::Database::failedBackup<BackupReport>(problem));
}

} // namespace Vellum::Reputation
