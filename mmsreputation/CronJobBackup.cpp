#include "mmsreputation/CronJobBackup.h"

#include "foundation/DetachedBackup.h"
#include "foundation/LoggedFailure.h"
#include "mmsreputation/Configuration.h"
#include "mmsreputation/LogCodes.h"
#include "mmsreputation/MMSReputationDatabase.h"
#include "mmsreputation/Reports.h"

namespace Vellum::MMSReputation {
namespace {

void backup() {
    try {
        Database database(Vellum::Database::Connection::defaultAddress());
        database.write(Configuration::instance()->fnameBackup());
    } catch (Exception const& failed) {
        logFailure(LogCode::backupOrRestoreFailed, failed);
        BackupReport::setFailed(failed.asString());
    }
}

} // namespace

int CronJobBackup::task() const {
    return statusOrLogged(LogCode::backupJobFailed, [] {
        DetachedBackup::Decision const deciding; // a restore that begins meanwhile waits for what comes of it
        if (Configuration::instance()->haMaster()) {
            backupEntries();
        }
    });
}

int backupEntries() {
    DetachedBackup::start("endpoint", backup);
    return 0;
}

int restoreEntries(std::string const& file) {
    return statusOrLogged(LogCode::backupOrRestoreFailed, [&] {
        Database database(Vellum::Database::Connection::defaultAddress());
        database.execute(file);
    });
}

int restoreEntries(char const* file) {
    return restoreEntries(std::string(file));
}

} // namespace Vellum::MMSReputation
