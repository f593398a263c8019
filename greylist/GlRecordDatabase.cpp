#include "greylist/GlRecordDatabase.h"

#include "foundation/Locks.h"
#include "foundation/LoggedFailure.h"
#include "foundation/OperationTally.h"
#include "foundation/database/FetchRows.h"
#include "foundation/database/Maintenance.h"
#include "foundation/database/ScriptBackup.h"
#include "foundation/database/ScriptRestore.h"
#include "greylist/BackupReport.h"
#include "greylist/BackupScript.h"
#include "greylist/Configuration.h"
#include "greylist/GlRows.h"
#include "greylist/LoadReport.h"
#include "greylist/LogCodes.h"

#include <algorithm>
#include <optional>

namespace Vellum::GreyList {
namespace {

// Lines are promised to log readers.
constexpr unsigned int createTableLine = 234;
constexpr unsigned int upgradeTableLine = 250;
constexpr unsigned int dropTableLine = 263;
constexpr int writeFailedLine = 366;
constexpr int readTuplesFailedLine = 416;
constexpr int readExemptionsFailedLine = 441;
constexpr Database::RestoreRecords restoreRecords{Source::recordDatabase, LogCode::restoreFileMissing, 384,
                                                  LogCode::restoreFailed, 387};

// Held by a load and by a backup: a backup of a cache that is only half filled would replace the whole table.
Mutex& tablesAndCaches() {
    static Mutex& mutex = *new Mutex; // detached threads may outlive main()
    return mutex;
}

// Reads one table and feeds it into its cache. `report` learns that the cache may be incomplete before it is cleared,
// so that it says so even when no memory is left to fill it.
template <class Row, class Cache, class Adapter>
LoadReport::Half load(Database::Connection& connection, std::string const& table, int failureLine,
                      void (*report)(LoadReport::Half const&)) {
    LoadReport::Half half;
    half.attempted = true;
    Database::RowContainer container;
    try {
        Cache& cache = *Cache::instance();
        Database::fetchRows<Row>(connection, "select * from " + table + ";", table, container);
        half.problem = "the load of " + table + " did not come to its end";
        report(half);
        cache->clear();
        Adapter const add;
        for (Ref<Database::RowImpl>& row : container.rows()) {
            add(row);
            row = {}; // its memory is wanted for the next record
        }
        half.loaded = true;
        half.problem.clear();
        half.rows = container.rows().size();
    } catch (Exception const& failed) {
        logFailure(LogCode::readFailed, Source::recordDatabase, failureLine, failed);
        half.problem = failed.asString();
    }
    return half;
}

} // namespace

GlRecordDatabase::GlRecordDatabase(SocketAddress const& address)
    : m_databaseName(databaseName), m_connection(m_databaseName, "", "", address) {}

void GlRecordDatabase::createTable() {
    m_connection.enableMultipleStatementsPerQuery();
    std::string text =
        "DROP TABLE IF EXISTS " + greyListTable + ";\n" + "create table " + greyListTable + " (\n" +
        " ClientIPAddress varchar( 128 ) not null,\n" + " SenderEmailAddress varchar( 128 ) not null,\n" +
        " RecipientEmailAddress varchar( 128 ) not null,\n" + " CreationTime int not null," +
        " ExpiryTime int not null," + " Primary Key ( ClientIPAddress, SenderEmailAddress, RecipientEmailAddress))\n" +
        " engine=InnoDB;";
    text += '\0';
    Database::maintain(m_connection, text, "GlRecordDatabase::createTable", Source::recordDatabase, createTableLine);
}

void GlRecordDatabase::upgradeTable() {
    Database::maintain(m_connection,
                       "ALTER table " + greyListTable + " \n" + " MODIFY ClientIPAddress varchar( 128 ) not null;",
                       "GlRecordDatabase::upgradeTable", Source::recordDatabase, upgradeTableLine);
}

void GlRecordDatabase::dropTable() {
    Database::maintain(m_connection, "drop table " + greyListTable + ";", "GlRecordDatabase::dropTable",
                       Source::recordDatabase, dropTableLine);
}

void GlRecordDatabase::read() {
    readTuples();
    readExemptions();
}

void GlRecordDatabase::readTuples() {
    Synchronized const hold(tablesAndCaches());
    TalliedOperation tallied(Operation::load, "tuples");
    LoadReport::Half const half = load<RecordRowWithExpiryTime, TupleCache, AdapterRecordRowToSenderDataBase>(
        m_connection, greyListTable, readTuplesFailedLine, LoadReport::setTuples);
    LoadReport::setTuples(half);
    tallied.hasSucceeded(half.loaded);
}

void GlRecordDatabase::readExemptions() {
    Synchronized const hold(tablesAndCaches());
    TalliedOperation tallied(Operation::load, "exemptions");
    LoadReport::Half const half =
        load<GLAutoExemptRecordRowWithExpiryTime, DynamicExemptCache, AdapterRecordRowToGLAutoExemptDataBase>(
            m_connection, autoExemptTable, readExemptionsFailedLine, LoadReport::setExemptions);
    LoadReport::setExemptions(half);
    tallied.hasSucceeded(half.loaded);
}

bool GlRecordDatabase::write() {
    return writeScript(true);
}

bool GlRecordDatabase::writeWithoutServer() {
    return writeScript(false);
}

bool GlRecordDatabase::writeScript(bool withServer) {
    Synchronized const hold(tablesAndCaches());
    Database::ReportedBackup<BackupReport> backup;
    BackupReport& report = backup.report;
    try {
        _TupleCache const& tuples = **TupleCache::instance();
        std::optional<Database::Connection> session;
        if (withServer) { // on the server's own database, held while the script is written: says early that it is away
            session.emplace(SocketAddress(IPAddress(std::string("127.0.0.1")), 3306), "mysql");
        }
        backup.script.write(RefConfiguration::instance(nullptr)->backupPath(), [&](std::ostream& out) {
            BackupSnapshot::Rows const rows = BackupSnapshot(tuples, **DynamicExemptCache::instance()).write(out);
            report.tuples = rows.tuples;
            report.exemptions = rows.exemptions;
            report.leftOut = rows.leftOut;
        });
        backup.script.handOver(Vellum::DatabaseDaemon::RequestCode::greylistScript, LogCode::daemonRefused);
        backup.publish();
        RefConfiguration::instance(nullptr)->backupDone();
    } catch (Exception const& failed) {
        logFailure(LogCode::writeFailed, Source::recordDatabase, writeFailedLine, failed);
        backup.script.hasFailed(failed.asString());
    }
    return report.accepted;
}

void GlRecordDatabase::write(std::string const& path) {
    Database::runScriptOrLog(m_connection, path, restoreRecords);
}

void GlRecordDatabase::runScript(Database::ScriptSource const& script, Database::QueryFile::Progress const& progress) {
    Database::runScript(m_connection, script, progress);
}

} // namespace Vellum::GreyList
