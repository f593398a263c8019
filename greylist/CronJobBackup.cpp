#include "greylist/CronJobBackup.h"

#include "foundation/DetachedBackup.h"
#include "foundation/Logger.h"
#include "greylist/BackupReport.h"
#include "greylist/Configuration.h"
#include "greylist/GlRecordDatabase.h"
#include "greylist/LogCodes.h"

namespace Vellum::GreyList {
namespace {

void log(std::uint32_t code, Exception const& failed) {
    Logger::instance(false).log(code, 0, formatText, failed.asString().c_str());
}

void backup() {
    try {
        GlRecordDatabase database(Database::Connection::defaultAddress());
        database.write();
    } catch (Exception const& failed) {
        log(LogCode::backupOrRestoreFailed, failed);
        BackupReport::setFailed(failed.asString());
    }
}

} // namespace

int CronJobBackup::task() const {
    try {
        if (RefConfiguration::instance(nullptr)->backupEnabled()) {
            backupEntries();
        }
        return 0;
    } catch (Exception const& failed) {
        log(LogCode::backupJobFailed, failed);
        return -1;
    }
}

int backupEntries() {
    DetachedBackup::start("greylist", backup);
    return 0;
}

int restoreEntries(char const* path) {
    try {
        GlRecordDatabase database(Database::Connection::defaultAddress());
        database.write(std::string(path));
        return 0;
    } catch (Exception const& failed) {
        log(LogCode::backupOrRestoreFailed, failed);
        return -1;
    }
}

} // namespace Vellum::GreyList
