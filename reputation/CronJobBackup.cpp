#include "reputation/CronJobBackup.h"

#include "foundation/DetachedBackup.h"
#include "foundation/LoggedFailure.h"
#include "reputation/BackupReport.h"
#include "reputation/Configuration.h"
#include "reputation/LogCodes.h"
#include "reputation/ReputationDatabase.h"

#include <string>

namespace Vellum::Reputation {
namespace {

void backup() {
    try {
        Database database(Vellum::Database::Connection::defaultAddress());
        std::string const path = Configuration::instance()->backupPath();
        doneOrLogged(LogCode::backupOrRestoreFailed, [&] { database.write(path); }); // which reports for itself
    } catch (Exception const& failed) {
        logFailure(LogCode::backupOrRestoreFailed, failed);
        BackupReport::setFailed(failed.asString());
    }
}

} // namespace

int CronJobBackup::task() const {
    return statusOrLogged(LogCode::backupJobFailed, [] {
        DetachedBackup::Decision const deciding; // a restore that begins meanwhile waits for what comes of it
        if (Configuration::instance()->backupEnabled()) {
            backupEntries();
        }
    });
}

int backupEntries() {
    DetachedBackup::start("reputation", backup);
    return 0;
}

int restoreEntries(char const* path) {
    return statusOrLogged(LogCode::backupOrRestoreFailed, [path] {
        Database database(Vellum::Database::Connection::defaultAddress());
        database.execute(std::string(path));
    });
}

} // namespace Vellum::Reputation
