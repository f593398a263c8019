// Sender reputation's tables: "sender_reputation" (counters by address and hour) and "sender_reputation_state".
//
// Rows never go through the connection: write() makes an SQL script of the cache and asks the database daemon to run
// it; read() loads both tables into the cache. A database object is used by one thread and made for one operation.
#pragma once

#include "foundation/SocketAddress.h"
#include "foundation/database/Connection.h"
#include "foundation/database/QueryFile.h"

#include <string>
#include <vector>

namespace Vellum::Reputation {

// Column texts and names are those of databases in the field.
inline std::string const recordsTable = "sender_reputation";
inline std::string const statesTable = "sender_reputation_state";

class Database {
  public:
    // Connects; callers pass Vellum::Database::Connection::defaultAddress(). Throws DatabaseException.
    explicit Database(SocketAddress const& address);
    virtual ~Database() = default;

    // Drop both tables with their rows and make empty ones; bring old ones up to date; drop them. Throw Exception named
    // after the operation, with the database's own as its cause.
    void createTable();
    void upgradeTable();
    void dropTable();
    // The same for one of the two by its name, for a database in which the other one is missing or must stay.
    void createTable(std::string const& table);
    void upgradeTable(std::string const& table);

    // Loads both tables into the cache: each hour of each address that has a state replaces what the cache held of that
    // hour; what else the cache holds stays. A failure of the query or of a row is logged (0x3000188) and changes
    // nothing; a row that cannot be added is logged (0x3000178) and passed over. Takes the cache's lock, then
    // Entry::s_lock, for each row; never throws an Exception. LoadReport.h says how it went.
    void read();

    // Writes the cache as a script to `path`, which appears whole or not at all, hands it to the database daemon, and
    // then tells the configuration. The locks are held shared while the cache is copied, not while text is made or
    // anybody is waited for. One at a time in the process, and not beside a load: a second call waits. Answers whether
    // the daemon accepted the script (a refusal is logged, 0x3000184).
    // Throws Exception when the script cannot be written; the file and the tables are then as they were. BackupReport.h
    // says how it went.
    bool write(std::string const& path);
    // The same without a connection, for a time when the server is away and this may be the last chance: the script
    // waits in the database daemon's journal until the server is back.
    static bool writeScript(std::string const& path);

    // Runs a script, all or nothing. The cache is not loaded again. Logs a failure (0x3000186 when there is no such
    // file, else 0x3000187) and never throws an Exception.
    void execute(std::string const& path);
    // The same, throwing DatabaseException and telling how far it is.
    void runScript(std::string const& path, Vellum::Database::QueryFile::Progress const& progress = nullptr);

  private:
    Vellum::Database::Connection m_connection;
};

// Fits tables that other hands have made, on the database selected on `connection`: texts are compared byte by byte
// from then on, in both tables alike, as their join needs it. Answers what was changed, a sentence each. Rows are kept.
// Throws DatabaseException.
std::vector<std::string> repairTables(Vellum::Database::Connection& connection);

} // namespace Vellum::Reputation
