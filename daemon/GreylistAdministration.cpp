#include "daemon/GreylistAdministration.h"

#include "daemon/OpenedScript.h"
#include "daemon/ScriptFacts.h"
#include "foundation/DetachedBackup.h"
#include "foundation/Exception.h"
#include "foundation/database/DatabaseDaemon.h"
#include "foundation/database/Query.h"
#include "foundation/database/ResultAccess.h"
#include "foundation/database/RowParser.h"
#include "greylist/DynamicExemptCache.h"
#include "greylist/GlRecordDatabase.h"
#include "greylist/LoadReport.h"
#include "greylist/TupleCache.h"
#include "mmsreputation/Configuration.h"
#include "mmsreputation/MMSReputationDatabase.h"
#include "reputation/Cache.h"
#include "reputation/Configuration.h"
#include "reputation/LoadReport.h"
#include "reputation/ReputationDatabase.h"

#include <charconv>
#include <chrono>
#include <mutex>
#include <string_view>

namespace Vellum::Daemon {
namespace {

constexpr std::chrono::seconds patienceWithBackups{120};

// The one number of a result.
class NumberParser : public Database::RowParser {
  public:
    void parse(void* handle, void* result) override {
        if (db_result_row_num(handle, result) > 0) {
            std::string_view const text = db_result_get_value(handle, result, db_result_fetch_row(result, 0), 0);
            std::from_chars(text.data(), text.data() + text.size(), number);
        }
    }

    std::uint64_t number = 0;
};

std::uint64_t rowsIn(Database::Connection& connection, std::string const& table) {
    NumberParser rows;
    Database::Query query(connection, &rows, true);
    query << "select count(*) from " << table << ";";
    query.execute();
    return rows.number;
}

template <class Cache>
std::uint64_t sizeOf(Cache const& cache) {
    SharedLock const hold(cache.lock);
    return cache.sizeNoLock();
}

// Marks the restore in hand; a second one is refused.
class RestoreMark {
  public:
    explicit RestoreMark(std::atomic<bool>& restoring) : m_restoring(restoring) {
        if (m_restoring.exchange(true)) {
            throw AdminRefusal("another restore is running");
        }
    }
    ~RestoreMark() { m_restoring = false; }
    RestoreMark(RestoreMark const&) = delete;
    RestoreMark& operator=(RestoreMark const&) = delete;

  private:
    std::atomic<bool>& m_restoring;
};

std::string problemOf(GreyList::LoadReport const& loads) {
    std::string problem = loads.tuples.problem;
    if (!problem.empty() && !loads.exemptions.problem.empty()) {
        problem += "; ";
    }
    return problem + loads.exemptions.problem;
}

RestoreOutcome loadGreylist(GreyList::GlRecordDatabase& database) {
    database.read();
    GreyList::LoadReport const loads = GreyList::LoadReport::last();
    RestoreOutcome outcome;
    outcome.tuples = loads.tuples.rows;
    outcome.exemptions = loads.exemptions.rows;
    outcome.loadProblem = problemOf(loads);
    return outcome;
}

RestoreOutcome loadReputations() {
    (**Reputation::RefCache::instance()).clear();
    Reputation::Database(Database::Connection::defaultAddress()).read();
    Reputation::LoadReport const load = Reputation::LoadReport::last();
    RestoreOutcome outcome;
    outcome.ofReputation = true;
    outcome.reputations = load.rows;
    outcome.loadProblem = load.problem;
    return outcome;
}

// The fresh cache takes the place of the one before.
RestoreOutcome loadEndpoints() {
    MMSReputation::Database database(Database::Connection::defaultAddress());
    MMSReputation::RefCache::instance(&database, MMSReputation::Select::everything);
    MMSReputation::LoadReport const load = MMSReputation::LoadReport::last();
    RestoreOutcome outcome;
    outcome.ofEndpoints = true;
    outcome.slices = load.entries.rows;
    outcome.loadProblem = load.problem();
    return outcome;
}

std::uint64_t cachedSubscribers() {
    using MMSReputation::RefCache;
    RefCache const cache = RefCache::instance(nullptr, MMSReputation::Select::everything);
    return cache.isNull() ? 0 : sizeOf(*cache);
}

// What is not loaded again after a restore would be overwritten by its next backup.
void refuseOtherTables(std::string const& path, ScriptFacts const& script) {
    if (!script.otherTable.empty()) {
        throw AdminRefusal(path + " replaces the table \"" + script.otherTable +
                           "\", which is not restored here: end vellumd, run the script with the database's own "
                           "client, and start vellumd again");
    }
}

} // namespace

template <class Report, class Make>
Report GreylistAdministration::backUp(Make make) {
    if (restoreRunning()) {
        throw AdminRefusal("a restore is running");
    }
    Synchronized const hold(m_inHand);
    try {
        make();
    } catch (Exception const& failed) {
        Report::setFailed(failed.asString());
    }
    return Report::last();
}

void GreylistAdministration::unlessTablesAreInHand(std::function<void()> const& work) {
    std::unique_lock const hold(m_inHand, std::try_to_lock);
    if (hold.owns_lock()) {
        work();
    }
}

GreyList::BackupReport GreylistAdministration::backupNow() {
    return backUp<GreyList::BackupReport>(
        [] { GreyList::GlRecordDatabase(Database::Connection::defaultAddress()).write(); });
}

Reputation::BackupReport GreylistAdministration::backUpReputations() {
    return backUp<Reputation::BackupReport>([] {
        std::string const path = Reputation::Configuration::instance()->backupPath();
        Reputation::Database(Database::Connection::defaultAddress()).write(path);
    });
}

MMSReputation::BackupReport GreylistAdministration::backUpEndpoints() {
    return backUp<MMSReputation::BackupReport>(
        [] { MMSReputation::Database::write(MMSReputation::Configuration::instance()->fnameBackup()); });
}

RestorePreview GreylistAdministration::previewRestore(std::string const& path) {
    ScriptFacts const script = ScriptFacts::of(OpenedScript(path, m_mayAsk));
    refuseOtherTables(path, script);
    RestorePreview preview;
    preview.bytes = script.bytes;
    preview.modified = script.modified;
    preview.scriptTuples = script.tuples;
    preview.scriptExemptions = script.exemptions;
    preview.scriptReputations = script.reputations;
    preview.newest = script.newest;
    preview.complete = script.complete;

    Database::Connection connection(GreyList::databaseName, "", "", Database::Connection::defaultAddress());
    preview.tableTuples = rowsIn(connection, GreyList::greyListTable);
    preview.tableExemptions = rowsIn(connection, GreyList::autoExemptTable);
    preview.ofReputation = script.ofReputation;
    if (preview.ofReputation) {
        preview.tableReputations = rowsIn(connection, Reputation::recordsTable);
        preview.cachedAddresses = sizeOf(**Reputation::RefCache::instance());
    }
    preview.ofEndpoints = script.ofEndpoints;
    if (preview.ofEndpoints) {
        preview.scriptSlices = script.slices;
        preview.tableSlices = rowsIn(connection, MMSReputation::recordTable);
        preview.cachedSubscribers = cachedSubscribers();
    }
    preview.cachedTuples = sizeOf(**GreyList::TupleCache::instance());
    preview.cachedExemptions = sizeOf(**GreyList::DynamicExemptCache::instance());
    return preview;
}

RestoreOutcome GreylistAdministration::restore(std::string const& path, RestoreProgress const& progress) {
    RestoreMark const mark(m_restoring);
    // Before anything is waited for, and before any of it is a statement that an error could quote: the administrator
    // may name a file that this process may read and he may not.
    OpenedScript const file(path, m_mayAsk);
    ScriptFacts const script = ScriptFacts::of(file);
    if (!script.complete) {
        throw AdminRefusal(path + " is no whole backup script: it does not end as one");
    }
    refuseOtherTables(path, script);
    Synchronized const hold(m_inHand);
    if (!DetachedBackup::waitForAll(patienceWithBackups)) {
        throw AdminRefusal("a backup is still running");
    }
    if (DatabaseDaemon::askWhetherSettled() == DatabaseDaemon::Answer::notSettled) {
        throw AdminRefusal("the database daemon has not run the last backup yet, which would undo the restore");
    }
    auto const start = std::chrono::steady_clock::now();
    GreyList::GlRecordDatabase database(Database::Connection::defaultAddress());
    database.runScript(file.source(), progress);
    RestoreOutcome outcome = script.ofReputation  ? loadReputations()
                             : script.ofEndpoints ? loadEndpoints()
                                                  : loadGreylist(database);
    cachesLoaded();
    outcome.milliseconds = static_cast<std::uint64_t>(
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start).count());
    return outcome;
}

} // namespace Vellum::Daemon
