#include "reputation/ReputationDatabase.h"

#include "foundation/Locks.h"
#include "foundation/LoggedFailure.h"
#include "foundation/OperationTally.h"
#include "foundation/database/FetchRows.h"
#include "foundation/database/Maintenance.h"
#include "foundation/database/ScriptRestore.h"
#include "foundation/database/TableRepair.h"
#include "reputation/BackupReport.h"
#include "reputation/BackupScript.h"
#include "reputation/Configuration.h"
#include "reputation/EntryRow.h"
#include "reputation/LoadReport.h"
#include "reputation/LogCodes.h"

namespace Vellum::Reputation {
namespace {

// Lines are promised to log readers.
constexpr unsigned int createTableLine = 143;
constexpr unsigned int upgradeTableLine = 164;
constexpr unsigned int dropTableLine = 187;
constexpr int readFailedLine = 387;
constexpr Vellum::Database::RestoreRecords restoreRecords{Source::database, LogCode::restoreFileMissing, 350,
                                                          LogCode::restoreFailed, 353};

constexpr unsigned int columnSize = 128; // bytes of an address column

// Held by a load and by a backup: a backup of a cache that is only half filled would replace the whole table.
Mutex& tablesAndCache() {
    static Mutex& mutex = *new Mutex; // detached threads may outlive main()
    return mutex;
}

std::string creationOf(std::string const& table) {
    std::string const head = "DROP TABLE IF EXISTS " + table + ";\ncreate table " + table +
                             " (\n ClientIPAddress varchar( 128 ) not null,\n";
    if (table == statesTable) {
        return head + " State int not null,\n Primary Key ( ClientIPAddress ))\n engine=InnoDB;\n";
    }
    return head + " Period int not null,\n MessageCount int not null, \n Recipients int not null,\n"
                  " InvalidRecipients int not null,\n Infected int not null, \n Spam int not null,\n"
                  " Primary Key ( ClientIPAddress,Period ))\n engine=InnoDB;\n";
}

} // namespace

Database::Database(SocketAddress const& address)
    : m_connection(Vellum::Database::senderHistoryDatabase, "", "", address) {}

void Database::createTable() {
    m_connection.enableMultipleStatementsPerQuery();
    Vellum::Database::maintain(m_connection, creationOf(recordsTable) + ' ' + creationOf(statesTable),
                               "Database::createTable", Source::database, createTableLine);
}

void Database::createTable(std::string const& table) {
    m_connection.enableMultipleStatementsPerQuery();
    Vellum::Database::maintain(m_connection, creationOf(table), "Database::createTable", Source::database,
                               createTableLine);
}

void Database::upgradeTable() {
    upgradeTable(recordsTable);
    upgradeTable(statesTable);
}

void Database::upgradeTable(std::string const& table) {
    Vellum::Database::maintain(m_connection,
                               "ALTER table " + table + " MODIFY ClientIPAddress varchar( 128 ) not null;",
                               "Database::upgradeTable", Source::database, upgradeTableLine);
}

void Database::dropTable() {
    for (std::string const& table : {recordsTable, statesTable}) {
        Vellum::Database::maintain(m_connection, "drop table " + table, "Database::dropTable", Source::database,
                                   dropTableLine);
    }
}

// An inner join: records of an address without a state row are not loaded.
void Database::read() {
    Synchronized const hold(tablesAndCache());
    TalliedOperation tallied(Operation::load, "reputation");
    LoadReport report;
    report.attempted = true;
    report.problem = "the load of " + recordsTable + " did not come to its end";
    LoadReport::set(report); // stands when no memory is left to go on
    try {
        m_connection.enableMultipleStatementsPerQuery();
        Vellum::Database::RowContainer container;
        Vellum::Database::fetchRows<EntryRow>(
            m_connection,
            "select * from sender_reputation,sender_reputation_state where (sender_reputation.ClientIPAddress = "
            "sender_reputation_state.ClientIPAddress );\n",
            recordsTable + " with " + statesTable, container);
        AdapterRowToEntry add;
        for (Ref<Vellum::Database::RowImpl>& row : container.rows()) {
            add(row);
            row = {}; // its memory is wanted for the next record
        }
        report.loaded = true;
        report.problem.clear();
        report.rows = container.rows().size();
        tallied.hasSucceeded();
    } catch (Exception const& failed) {
        logFailure(LogCode::readFailed, Source::database, readFailedLine, failed);
        report.problem = failed.asString();
    }
    LoadReport::set(report);
}

bool Database::write(std::string const& path) {
    return writeScript(path);
}

bool Database::writeScript(std::string const& path) {
    Synchronized const hold(tablesAndCache());
    Vellum::Database::ReportedBackup<BackupReport> backup;
    BackupReport& report = backup.report;
    try {
        backup.script.write(path, [&](std::ostream& out) {
            BackupSnapshot::Rows const rows = BackupSnapshot(**RefCache::instance()).write(out);
            report.records = rows.records;
            report.addresses = rows.addresses;
            report.leftOut = rows.leftOut;
        });
        backup.script.handOver(Vellum::DatabaseDaemon::RequestCode::reputationScript, LogCode::daemonRefused);
        backup.publish();
        Configuration::instance()->backupDone();
    } catch (Exception const& failed) {
        backup.script.hasFailed(failed.asString());
        throw;
    }
    return report.accepted;
}

void Database::execute(std::string const& path) {
    Vellum::Database::runScriptOrLog(m_connection, path, restoreRecords);
}

void Database::runScript(std::string const& path, Vellum::Database::QueryFile::Progress const& progress) {
    Vellum::Database::runScript(m_connection, path, progress);
}

std::vector<std::string> repairTables(Vellum::Database::Connection& connection) {
    std::vector<std::string> changes;
    Vellum::Database::compareByteWise(connection, recordsTable, columnSize, changes);
    Vellum::Database::compareByteWise(connection, statesTable, columnSize, changes);
    return changes;
}

} // namespace Vellum::Reputation
