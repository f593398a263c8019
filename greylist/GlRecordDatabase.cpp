#include "greylist/GlRecordDatabase.h"

#include "foundation/File.h"
#include "foundation/Locks.h"
#include "foundation/Logger.h"
#include "foundation/database/DatabaseDaemon.h"
#include "foundation/database/Query.h"
#include "greylist/BackupReport.h"
#include "greylist/BackupScript.h"
#include "greylist/Configuration.h"
#include "greylist/GlRows.h"
#include "greylist/LoadReport.h"
#include "greylist/LogCodes.h"

#include <mysqld_error.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <ctime>
#include <filesystem>
#include <memory>
#include <optional>

namespace Vellum::GreyList {
namespace {

// Lines are promised to log readers.
constexpr unsigned int createTableLine = 234;
constexpr unsigned int upgradeTableLine = 250;
constexpr unsigned int dropTableLine = 263;
constexpr int writeFailedLine = 366;
constexpr int restoreFileMissingLine = 384;
constexpr int restoreFailedLine = 387;
constexpr int readTuplesFailedLine = 416;
constexpr int readExemptionsFailedLine = 441;

void logFailure(std::uint32_t code, int line, Exception const& failed) {
    Logger::instance(false).log(code, 0, formatSourceLineText, Source::recordDatabase, line, failed.asString().c_str());
}

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
    Database::FeRowParser<Row> parser(container);
    try {
        Cache& cache = *Cache::instance();
        Database::Query query(connection, &parser, true);
        query << "select * from " << table << ";";
        query.execute();
        half.problem = "the load of " + table + " did not come to its end";
        report(half);
        cache->clear();
        std::for_each(container.rows().begin(), container.rows().end(), Adapter());
        half.loaded = true;
        half.problem.clear();
        half.rows = container.rows().size();
    } catch (Exception const& failed) {
        Exception named(failed);
        if (auto const row = parser.failedRow()) {
            named.stringParameter("row " + std::to_string(*row + 1) + " of " + table);
        }
        logFailure(LogCode::readFailed, failureLine, named);
        half.problem = named.asString();
    }
    return half;
}

// Gathers the report of one backup, and hands it in at the end of its life.
class ReportedBackup {
  public:
    ReportedBackup() {
        m_report.attempted = true;
        m_report.startedAt = std::time(nullptr);
    }
    ~ReportedBackup() {
        auto const taken = std::chrono::steady_clock::now() - m_start;
        m_report.milliseconds =
            static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::milliseconds>(taken).count());
        BackupReport::set(m_report);
    }
    ReportedBackup(ReportedBackup const&) = delete;
    ReportedBackup& operator=(ReportedBackup const&) = delete;

    void holds(BackupSnapshot::Rows const& rows) {
        m_report.tuples = rows.tuples;
        m_report.exemptions = rows.exemptions;
        m_report.leftOut = rows.leftOut;
    }
    void isWritten(std::string const& path) {
        std::error_code unknown;
        auto const bytes = std::filesystem::file_size(path, unknown);
        m_report.bytes = unknown ? 0 : bytes;
    }
    void isAnswered(int answer) {
        m_report.accepted = answer == 0;
        if (answer != 0) {
            m_report.problem = std::string("the database daemon did not take the script: ") +
                               Vellum::DatabaseDaemon::text(static_cast<Vellum::DatabaseDaemon::Answer>(answer));
        }
    }
    void hasFailed(std::string const& problem) {
        if (!m_report.accepted) { // what fails afterwards does not take it back
            m_report.problem = problem;
        }
    }
    bool accepted() const { return m_report.accepted; }

  private:
    BackupReport m_report;
    std::chrono::steady_clock::time_point const m_start = std::chrono::steady_clock::now();
};

// A session on the server's own database, held while a script is written: it says early that the server is away. An
// account that may use nothing but the mail filter's database is let in without it.
std::unique_ptr<Database::Connection> connectToServer() {
    SocketAddress const address(IPAddress(std::string("127.0.0.1")), 3306);
    try {
        return std::make_unique<Database::Connection>(address, "mysql");
    } catch (Database::DatabaseException const& failed) {
        if (failed.serverError() != ER_DBACCESS_DENIED_ERROR && failed.serverError() != ER_BAD_DB_ERROR) {
            throw;
        }
        return std::make_unique<Database::Connection>(address, "");
    }
}

} // namespace

GlRecordDatabase::GlRecordDatabase(SocketAddress const& address)
    : m_databaseName(databaseName), m_connection(m_databaseName, "", "", address) {}

void GlRecordDatabase::maintain(std::string const& text, char const* operation, unsigned int line) {
    try {
        Database::Query query(m_connection, nullptr, true);
        query << text;
        query.execute();
    } catch (Exception const& failed) {
        throw Exception(operation, Exception::failure, Source::recordDatabase, line).cause(failed);
    }
}

void GlRecordDatabase::createTable() {
    m_connection.enableMultipleStatementsPerQuery();
    std::string text =
        "DROP TABLE IF EXISTS " + greyListTable + ";\n" + "create table " + greyListTable + " (\n" +
        " ClientIPAddress varchar( 128 ) not null,\n" + " SenderEmailAddress varchar( 128 ) not null,\n" +
        " RecipientEmailAddress varchar( 128 ) not null,\n" + " CreationTime int not null," +
        " ExpiryTime int not null," + " Primary Key ( ClientIPAddress, SenderEmailAddress, RecipientEmailAddress))\n" +
        " engine=InnoDB;";
    text += '\0';
    maintain(text, "GlRecordDatabase::createTable", createTableLine);
}

void GlRecordDatabase::upgradeTable() {
    maintain("ALTER table " + greyListTable + " \n" + " MODIFY ClientIPAddress varchar( 128 ) not null;",
             "GlRecordDatabase::upgradeTable", upgradeTableLine);
}

void GlRecordDatabase::dropTable() {
    maintain("drop table " + greyListTable + ";", "GlRecordDatabase::dropTable", dropTableLine);
}

void GlRecordDatabase::read() {
    Synchronized const hold(tablesAndCaches());
    LoadReport::setTuples(load<RecordRowWithExpiryTime, TupleCache, AdapterRecordRowToSenderDataBase>(
        m_connection, greyListTable, readTuplesFailedLine, LoadReport::setTuples));
    LoadReport::setExemptions(
        load<GLAutoExemptRecordRowWithExpiryTime, DynamicExemptCache, AdapterRecordRowToGLAutoExemptDataBase>(
            m_connection, autoExemptTable, readExemptionsFailedLine, LoadReport::setExemptions));
}

bool GlRecordDatabase::write() {
    return writeScript(true);
}

bool GlRecordDatabase::writeWithoutServer() {
    return writeScript(false);
}

bool GlRecordDatabase::writeScript(bool withServer) {
    Synchronized const hold(tablesAndCaches());
    ReportedBackup backup;
    try {
        _TupleCache const& tuples = **TupleCache::instance();
        std::unique_ptr<Database::Connection> const session = withServer ? connectToServer() : nullptr;
        std::string const path = RefConfiguration::instance(nullptr)->backupPath();
        File::basic_ofstream<char> out{File::Path(path)};
        backup.holds(BackupSnapshot(tuples, **DynamicExemptCache::instance()).write(out));
        out.commit();
        backup.isWritten(path);
        int const answer =
            Vellum::DatabaseDaemon::requestScript(Vellum::DatabaseDaemon::RequestCode::greylistScript, path);
        backup.isAnswered(answer);
        if (!backup.accepted()) {
            Logger::instance(false).log(LogCode::daemonRefused, 0, formatText, " ");
        }
        RefConfiguration::instance(nullptr)->backupDone();
    } catch (Exception const& failed) {
        logFailure(LogCode::writeFailed, writeFailedLine, failed);
        backup.hasFailed(failed.asString());
    }
    return backup.accepted();
}

void GlRecordDatabase::write(std::string const& path) {
    try {
        runScript(path);
    } catch (Exception const& failed) {
        bool const missing = ::access(path.c_str(), F_OK) != 0;
        Logger::instance(false).log(missing ? LogCode::restoreFileMissing : LogCode::restoreFailed, 0,
                                    formatSourceLineTextPath, Source::recordDatabase,
                                    missing ? restoreFileMissingLine : restoreFailedLine, failed.asString().c_str(),
                                    path.c_str());
    }
}

void GlRecordDatabase::runScript(std::string const& path, Database::QueryFile::Progress const& progress) {
    m_connection.enableMultipleStatementsPerQuery();
    Database::QueryFile script(m_connection, path);
    script.onProgress(progress);
    script.execute();
}

} // namespace Vellum::GreyList
