#include "daemon/LastBackup.h"

#include "foundation/Logger.h"
#include "greylist/BackupReport.h"
#include "greylist/GlRecordDatabase.h"
#include "mmsreputation/MMSReputationDatabase.h"
#include "mmsreputation/Reports.h"
#include "reputation/BackupReport.h"
#include "reputation/ReputationDatabase.h"

#include <exception>

namespace Vellum::Daemon {
namespace {

void note(Logger::Severity severity, std::string const& text) {
    Logger::instance(false).note(severity, text);
}

void take(LastBackup const& backup) {
    try {
        backup.take();
    } catch (std::exception const& failed) {
        note(Logger::Severity::warning,
             "the last backup" + backup.of + " is made without the database: " + failed.what());
        backup.takeWithoutServer();
    }
}

} // namespace

void takeLastBackup(LastBackup const& backup) {
    if (!backup.enabled) {
        note(Logger::Severity::info, "no last backup" + backup.of + ": backups are switched off in the settings");
        return;
    }
    if (!backup.problem.empty()) {
        note(Logger::Severity::warning, "no last backup" + backup.of + ": " + backup.problem);
        return;
    }
    LastBackup::Outcome outcome;
    try {
        take(backup);
        outcome = backup.outcome();
    } catch (std::exception const& failed) {
        outcome = {false, failed.what()};
    }
    if (outcome.accepted) {
        note(Logger::Severity::info, "last backup" + backup.of + ": " + outcome.text + " are with the database daemon");
    } else {
        note(Logger::Severity::error,
             "the last backup" + backup.of + " failed, what came after the one before is lost: " + outcome.text);
    }
}

LastBackup lastGreylistBackup() {
    LastBackup backup;
    backup.take = [] {
        GreyList::GlRecordDatabase(Database::Connection::defaultAddress()).write();
    };
    backup.takeWithoutServer = [] {
        GreyList::GlRecordDatabase::writeWithoutServer();
    };
    backup.outcome = [] {
        GreyList::BackupReport const report = GreyList::BackupReport::last();
        return LastBackup::Outcome{report.accepted, report.accepted
                                                        ? std::to_string(report.tuples) + " tuples and " +
                                                              std::to_string(report.exemptions) + " exemptions"
                                                        : report.problem};
    };
    return backup;
}

// No server is needed to write the script: the database daemon has one, or waits for it.
LastBackup lastReputationBackup(std::string const& path) {
    LastBackup backup;
    backup.of = " of sender reputation";
    backup.take = backup.takeWithoutServer = [path] {
        Reputation::Database::writeScript(path);
    };
    backup.outcome = [] {
        Reputation::BackupReport const report = Reputation::BackupReport::last();
        return LastBackup::Outcome{report.accepted, report.accepted
                                                        ? std::to_string(report.records) + " hours of " +
                                                              std::to_string(report.addresses) + " addresses"
                                                        : report.problem};
    };
    return backup;
}

LastBackup lastEndpointBackup(std::string const& path) {
    LastBackup backup;
    backup.of = " of endpoints";
    backup.take = backup.takeWithoutServer = [path] {
        MMSReputation::Database::write(path);
    };
    backup.outcome = [] {
        MMSReputation::BackupReport const report = MMSReputation::BackupReport::last();
        return LastBackup::Outcome{report.accepted, report.accepted
                                                        ? std::to_string(report.records) + " slices of " +
                                                              std::to_string(report.subscribers) + " subscribers"
                                                        : report.problem};
    };
    return backup;
}

} // namespace Vellum::Daemon
