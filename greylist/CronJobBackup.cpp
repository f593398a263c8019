#include "greylist/CronJobBackup.h"

#include "foundation/DetachedBackup.h"
#include "foundation/LoggedFailure.h"
#include "greylist/BackupReport.h"
#include "greylist/Configuration.h"
#include "greylist/GlRecordDatabase.h"
#include "greylist/LogCodes.h"

namespace Vellum::GreyList {
namespace {

void backup() {
    try {
        GlRecordDatabase database(Database::Connection::defaultAddress());
        database.write();
    } catch (Exception const& failed) {
        logFailure(LogCode::backupOrRestoreFailed, failed);
        BackupReport::setFailed(failed.asString());
    }
}

} // namespace

int CronJobBackup::task() const {
    return statusOrLogged(LogCode::backupJobFailed, [] {
        DetachedBackup::Decision const deciding; // a restore that begins meanwhile waits for what comes of it
        if (RefConfiguration::instance(nullptr)->backupEnabled()) {
            backupEntries();
        }
    });
}

int backupEntries() {
    DetachedBackup::start("greylist", backup);
    return 0;
}

int restoreEntries(char const* path) {
    return statusOrLogged(LogCode::backupOrRestoreFailed, [path] {
        GlRecordDatabase database(Database::Connection::defaultAddress());
        database.write(std::string(path));
    });
}

} // namespace Vellum::GreyList
