#include "greylist/BackupReport.h"

#include "foundation/Locks.h"

#include <ctime>

namespace Vellum::GreyList {
namespace {

struct Kept {
    Mutex lock;
    BackupReport report VELLUM_GUARDED_BY(lock);
};

Kept& kept() {
    static Kept& theReport = *new Kept; // detached threads may outlive main()
    return theReport;
}

} // namespace

BackupReport BackupReport::last() {
    Kept& all = kept();
    Synchronized const hold(all.lock);
    return all.report;
}

void BackupReport::set(BackupReport const& report) {
    Kept& all = kept();
    Synchronized const hold(all.lock);
    all.report = report;
}

void BackupReport::setFailed(std::string const& problem) {
    BackupReport report;
    report.attempted = true;
    report.startedAt = std::time(nullptr);
    report.problem = problem;
    set(report);
}

} // namespace Vellum::GreyList
