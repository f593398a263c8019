#include "mmsreputation/MMSReputationDatabase.h"

#include "foundation/File.h"
#include "foundation/Locks.h"
#include "foundation/LoggedFailure.h"
#include "foundation/Logger.h"
#include "foundation/OperationTally.h"
#include "foundation/RecordFormats.h"
#include "foundation/database/FetchRows.h"
#include "foundation/database/Maintenance.h"
#include "foundation/database/QueryLoadData.h"
#include "foundation/database/ScriptBackup.h"
#include "foundation/database/ScriptRestore.h"
#include "mmsreputation/BackupScript.h"
#include "mmsreputation/Configuration.h"
#include "mmsreputation/LogCodes.h"
#include "mmsreputation/MMSReputationDisplay.h"
#include "mmsreputation/Reports.h"
#include "mmsreputation/Rows.h"

#include <ctime>
#include <exception>

namespace Vellum::MMSReputation {
namespace {

// Lines are promised to log readers.
constexpr unsigned int createTableLine = 253;
constexpr unsigned int dropTableLine = 267;
constexpr int writeFailedLine = 416;
constexpr int scriptFailedLine = 436;
constexpr int scriptMissingLine = 440;
constexpr int readFailedLine = 506;
constexpr int showScoresFailedLine = 557;

// Operation, source, line, the exception's text, the file.
constexpr char const* formatScriptFailed = "%s\x01%s\x01%d\x01%s\x01%s";

struct Table {
    std::string name;
    char const* columns; // each on its own line
    char const* key;
};

// In the order in which they are made. The texts are those of databases in the field.
Table const tables[] = {
    {recordTable,
     " MSISDN varchar(36) not null,\n Period int not null,\n Spam int not null, \n Infected int not null,\n",
     "MSISDN,Period"},
    {exemptTable, " MSISDN varchar(36) not null,\n", "MSISDN"},
    {blacklistTable, " MSISDN varchar(36) not null,\n", "MSISDN"},
    {expiryTable, " MSISDN varchar(36) not null,\n expiry int not null,\n", "MSISDN"},
    {scoreTable, " MSISDN varchar(36) not null,\n score int not null,\n expiry int not null,\n", "MSISDN"},
};

void logText(std::uint32_t code, std::string const& text) {
    Logger::instance(false).log(code, 0, formatText, text.c_str());
}

// Rows that are passed over: the first ones are logged one by one, the others as a sum.
class SkippedRows {
  public:
    explicit SkippedRows(std::string const& table) : m_table(table) {}
    ~SkippedRows() {
        if (m_count > shownOneByOne) {
            logText(LogCode::passedOver, std::to_string(m_count - shownOneByOne) + " more rows of " + m_table +
                                             " hold no subscriber number");
        }
    }
    SkippedRows(SkippedRows const&) = delete;
    SkippedRows& operator=(SkippedRows const&) = delete;

    // Whether the row's number is none.
    template <class Row>
    bool skips(Row const& row) {
        if (!row.msisdn.isNull()) {
            return false;
        }
        if (++m_count <= shownOneByOne) {
            logText(LogCode::passedOver,
                    "row of " + m_table + " skipped: \"" + row.written + "\" is no subscriber number, expected digits");
        }
        return true;
    }

  private:
    static constexpr std::uint64_t shownOneByOne = 20;

    std::string const m_table;
    std::uint64_t m_count = 0;
};

// Runs a query and hands over each row, also those that came before one that is refused.
template <class Row, class Take>
void forEachRow(Vellum::Database::Connection& connection, std::string const& sql, std::string const& table, Take take) {
    Vellum::Database::RowContainer container;
    std::exception_ptr refused;
    try {
        Vellum::Database::fetchRows<Row>(connection, sql, table, container);
    } catch (Exception const&) {
        refused = std::current_exception();
    }
    SkippedRows skipped(table);
    for (auto const& row : container.rows()) {
        auto const& fetched = static_cast<Row const&>(*row);
        if (!skipped.skips(fetched) && !take(fetched)) {
            break;
        }
    }
    if (refused) {
        std::rethrow_exception(refused);
    }
}

// What a load does to the report.
class ReportedLoad {
  public:
    explicit ReportedLoad(unsigned int what) : m_what(what) {
        begin(m_report.entries, Select::entries);
        begin(m_report.exemptList, Select::exemptList);
        begin(m_report.blacklist, Select::blacklist);
    }
    // Runs `load`, which answers a number of rows, when the selector asks for it.
    template <class Load>
    void run(LoadReport::Part LoadReport::*member, unsigned int bit, Load load) {
        if ((m_what & bit) != 0) {
            LoadReport::Part& part = m_report.*member;
            part.rows = load();
            part.loaded = true;
            part.problem.clear();
        }
    }
    void hasFailed(std::string const& problem) {
        for (LoadReport::Part* part : {&m_report.entries, &m_report.exemptList, &m_report.blacklist}) {
            if (!part->loaded && part->problem == unfinished) {
                part->problem = problem;
            }
        }
    }
    LoadReport const& report() const { return m_report; }

  private:
    static constexpr char const* unfinished = "the load did not come to its end";

    void begin(LoadReport::Part& part, unsigned int bit) const {
        bool const replacesCache = m_what == 0 || m_what > (Select::exemptList | Select::blacklist);
        if ((m_what & bit) != 0 || replacesCache) {
            part.attempted = true;
            part.loaded = false;
            part.problem = (m_what & bit) != 0 ? unfinished : "a reload replaced the cache without asking for it";
        }
    }

    unsigned int const m_what;
    LoadReport m_report = LoadReport::last();
};

// Two scripts at once would write the same file.
Mutex& oneBackupAtATime() {
    static Mutex& mutex = *new Mutex; // detached threads may outlive main()
    return mutex;
}

void requireWhole(Cache const& cache) {
    std::string const why = cache.whyNotWhole();
    if (!why.empty()) {
        throw Exception("EndpointReputation::Database::write", Exception::failure, Source::database)
            .stringParameter("the cache does not hold all entries of the tables and must not replace them: " + why);
    }
}

} // namespace

Database::Database(SocketAddress const& address)
    : m_databaseName(Vellum::Database::senderHistoryDatabase), m_connection(m_databaseName, "", "", address) {}

void Database::createTable(std::string const& which) {
    std::string script;
    for (Table const& table : tables) {
        if (which.empty() || which == table.name) {
            script += "DROP TABLE IF EXISTS " + table.name + ";\n create table " + table.name + " (\n" + table.columns +
                      " Primary Key ( " + table.key + " )) engine=InnoDB;";
        }
    }
    m_connection.enableMultipleStatementsPerQuery();
    Vellum::Database::maintain(m_connection, script, "EndpointReputation::Database::createTable", Source::database,
                               createTableLine);
}

void Database::dropTable() {
    Vellum::Database::maintain(m_connection, "drop table " + recordTable + ";",
                               "EndpointReputation::Database::dropTable", Source::database, dropTableLine);
}

void Database::execute(std::string const& file) {
    try {
        runScript(file);
    } catch (Exception const& failed) {
        bool const exists = File::Path(file).exists();
        Logger::instance(false).log(exists ? LogCode::scriptFailed : LogCode::scriptMissing, 0, formatScriptFailed,
                                    "execute", Source::database, exists ? scriptFailedLine : scriptMissingLine,
                                    failed.asString().c_str(), file.c_str());
    }
}

void Database::runScript(std::string const& file, Vellum::Database::QueryFile::Progress const& progress) {
    m_connection.enableMultipleStatementsPerQuery();
    Vellum::Database::runScript(m_connection, file, progress);
}

void Database::loadDataIntoTable(std::string const& table, std::string const& file) {
    Vellum::Database::QueryLoadData(m_connection, m_databaseName, table, file);
}

void Database::read(RefCache& target, unsigned int what, long now) {
    long const time = now == 0 ? std::time(nullptr) : now;
    TalliedOperation tallied(Operation::load, "endpoints");
    ReportedLoad load(what);
    try {
        load.run(&LoadReport::entries, Select::entries, [&] { return readEntries(*target, time); });
        load.run(&LoadReport::exemptList, Select::exemptList,
                 [&] { return readList(exemptTable, &Cache::exempt, *target); });
        load.run(&LoadReport::blacklist, Select::blacklist,
                 [&] { return readList(blacklistTable, &Cache::blacklist, *target); });
        tallied.hasSucceeded();
    } catch (Exception const& failed) {
        logFailure(LogCode::readFailed, Source::database, readFailedLine, failed);
        load.hasFailed(failed.asString());
    }
    if ((what & Select::entries) == 0) {
        target->missesEntries("it was loaded without entries");
    } else if (!load.report().entries.loaded) {
        target->missesEntries(load.report().entries.problem);
    }
    LoadReport::set(load.report());
}

std::uint64_t Database::readEntries(Cache& cache, long now) {
    std::uint32_t const current = Period(now, 0, Period::slicesPerWindow).index;
    std::uint32_t const lowest = current - Entry::scoredBefore;
    // Nobody counts ahead of time: such slices were counted when the configured window was another one, and would be
    // scored for ever. A clock that was set back a little costs nothing.
    std::uint32_t const highest = current + Period::slicesPerWindow;
    std::uint64_t rows = 0;
    std::uint64_t ahead = 0;
    forEachRow<EntryRow>(m_connection,
                         "select " + recordTable + ".msisdn, Period, Spam, Infected, Expiry from " + recordTable + "," +
                             expiryTable + " where (" + recordTable + ".msisdn = " + expiryTable + ".msisdn );",
                         recordTable, [&](EntryRow const& row) {
                             bool const isAhead = row.period > highest;
                             ahead += isAhead ? 1 : 0;
                             if ((isAhead || row.period <= lowest) && row.expiry <= now) {
                                 return true;
                             }
                             RefEntry const entry = cache.entry(row.msisdn, 0, true);
                             if (!isAhead) {
                                 entry->add(Period(row.period), Entry::Record(row.spam, row.infected));
                             }
                             entry->blacklistExpiry(row.expiry);
                             ++rows;
                             return true;
                         });
    if (ahead > 0) {
        logText(LogCode::passedOver, std::to_string(ahead) + " rows of " + recordTable +
                                         " skipped: their slices lie ahead, they were counted in another window");
    }
    return rows;
}

std::uint64_t Database::readList(std::string const& table, void (Cache::*add)(MSISDN const&), Cache& cache) {
    std::uint64_t rows = 0;
    forEachRow<MSISDNRow>(m_connection, "select * from " + table + ";", table, [&](MSISDNRow const& row) {
        (cache.*add)(row.msisdn);
        ++rows;
        return true;
    });
    return rows;
}

bool Database::write(std::string const& file) {
    Synchronized const hold(oneBackupAtATime());
    Vellum::Database::ReportedBackup<BackupReport> backup;
    BackupReport& report = backup.report;
    try {
        RefCache const cache = RefCache::instance(nullptr, Select::everything);
        requireWhole(*cache);
        BackupSnapshot const snapshot(*cache);
        backup.script.write(file, [&](std::ostream& out) {
            BackupSnapshot::Rows const rows = snapshot.write(out);
            report.subscribers = rows.subscribers;
            report.records = rows.records;
            report.leftOut = rows.leftOut;
        });
        backup.script.handOver(Vellum::DatabaseDaemon::RequestCode::endpointScript, LogCode::daemonRefused);
        backup.publish();
        Configuration::instance()->resyncIfMaster();
    } catch (Exception const& failed) {
        logFailure(LogCode::writeFailed, Source::database, writeFailedLine, failed);
        backup.script.hasFailed(failed.asString());
    }
    return report.accepted;
}

void Database::showMMSReputationScore(int (*callback)(mms_reputation_display_packet const*), int sortBy, int limit) {
    std::string sql = "SELECT * FROM " + scoreTable;
    sql += sortBy == 1 ? " ORDER BY score " : sortBy == 2 ? " ORDER BY expiry " : " ORDER BY msisdn ";
    if (limit > 0) {
        sql += " LIMIT " + std::to_string(limit) + " ";
    }
    sql += ";";
    try {
        forEachRow<MSISDNScoreRow>(m_connection, sql, scoreTable, [&](MSISDNScoreRow const& row) {
            DisplayPacket const packet = displayPacket(row.msisdn.asString(), row.score, row.expiry);
            return callback(&packet) == 0;
        });
    } catch (Exception const& failed) {
        logFailure(LogCode::showScoresFailed, Source::database, showScoresFailedLine, failed);
    }
}

} // namespace Vellum::MMSReputation
