// The endpoint tables: records, expiry times, both lists, and the score table that tools read.
//
// Entries never go through the connection: write() makes an SQL script of the cache and asks the database daemon to run
// it; read() fills a fresh cache. A database object is used by one thread and made for one operation.
#pragma once

#include "foundation/SocketAddress.h"
#include "foundation/database/Connection.h"
#include "foundation/database/QueryFile.h"
#include "mmsreputation/RefCache.h"
#include "mmsreputation/vellum_mms_reputation.h"

#include <cstddef>
#include <cstdint>
#include <string>

namespace Vellum::MMSReputation {

// Names of databases in the field.
inline std::string const recordTable = "mms_reputation";
inline std::string const expiryTable = "mms_reputation_expiry";
inline std::string const exemptTable = "mms_exempt";
inline std::string const blacklistTable = "mms_blacklist";
// Spelled this way in every database in the field; the right spelling would lose their scores.
inline std::string const scoreTable = "mms_repuation_score";

// Characters that a number column takes.
inline constexpr std::size_t columnSize = 36;

class Database : public EntrySource {
  public:
    // Connects to "fe_sender_history"; callers pass Connection::defaultAddress(). Throws DatabaseException.
    explicit Database(SocketAddress const& address);
    ~Database() override = default;

    // Drops the table of that name with its rows and makes an empty one; with the empty name all five. A name that is
    // none of theirs is refused. Throws Exception named after the operation, with the database's own as its cause.
    void createTable(std::string const& which);
    // Drops the records table, and only that one: callers expect the other four to stay. Throws likewise.
    void dropTable();

    // Runs a script file, all or nothing; the cache is not loaded again. Logs a failure (0x300017C when there is no
    // such file, else 0x300017B) and never throws an Exception.
    void execute(std::string const& file);
    // The same, throwing DatabaseException and telling how far it is.
    void runScript(std::string const& file, Vellum::Database::QueryFile::Progress const& progress = nullptr);

    // Replaces the rows of a table with those of a tab-separated file (QueryLoadData.h). Throws Exception.
    void loadDataIntoTable(std::string const& table, std::string const& file);

    // Fills `target`, which nobody else sees yet, with what the bits of `what` ask for (Select): entries first, then
    // the exempt list, then the blacklist. Of the entries what is too old to be scored and not blacklisted any more is
    // skipped, and so are slices more than a window ahead, which were counted under another window. Rows whose number
    // is none are skipped and logged (0x3000166). A failure is logged (0x300017D) and ends the load: what came before
    // stays in `target`, LoadReport (Reports.h) says that it is not all, and a target that misses entries knows it.
    void read(RefCache& target, unsigned int what) override { read(target, what, 0); }
    // The same as at `now`, seconds since the epoch; 0 for now.
    void read(RefCache& target, unsigned int what, long now);

    // Purges the process's cache, writes its entries as a script to `file`, which appears whole or not at all, hands it
    // to the database daemon and calls Configuration::resyncIfMaster(). Entries without records are not written, so one
    // that is only blacklisted is gone after the next load. A process without a cache, or with one that misses entries
    // of the tables, writes nothing. One at a time in the process. Never throws an Exception (0x300017A, 0x3000179);
    // answers whether the daemon accepted the script. BackupReport (Reports.h) has the details.
    //
    // Needs no connection: while the server is away the script waits in the database daemon's journal. So it can be
    // called without an object, for a last backup.
    static bool write(std::string const& file);

    // Calls `callback` for each row of the score table in ascending order of score (sortBy 1), expiry (2) or number
    // (any other), at most `limit` of them if that is above 0, until it answers other than 0. Logs a failure
    // (0x300017E) and never throws an Exception.
    void showMMSReputationScore(int (*callback)(mms_reputation_display_packet const*), int sortBy, int limit);

  private:
    // Answer how many rows went into the cache.
    std::uint64_t readEntries(Cache& cache, long now);
    std::uint64_t readList(std::string const& table, void (Cache::*add)(MSISDN const&), Cache& cache);

    std::string const m_databaseName;
    Vellum::Database::Connection m_connection;
};

} // namespace Vellum::MMSReputation
