// The greylist's tables: "grey_list" (tuples) and "autoexempt" (dynamic exemptions).
//
// Rows never go through the connection: write() makes an SQL script of both caches and asks the database daemon to run
// it; read() loads both tables into the caches. A database object is used by one thread and made for one operation.
#pragma once

#include "foundation/SocketAddress.h"
#include "foundation/database/Connection.h"
#include "foundation/database/QueryFile.h"

#include <ostream>
#include <string>

namespace Vellum::GreyList {

// Column texts and names are those of databases in the field.
inline std::string const greyListTable = "grey_list";
inline constexpr char const* autoExemptTable = "autoexempt";
inline constexpr char const* databaseName = Database::senderHistoryDatabase;
// Bytes that an address or domain column takes.
inline constexpr unsigned int columnSize = 128;

class GlRecordDatabase {
  public:
    // Connects; callers pass Database::Connection::defaultAddress(). Throws DatabaseException.
    explicit GlRecordDatabase(SocketAddress const& address);
    virtual ~GlRecordDatabase() = default;

    // Drops the tuple table with its rows and makes an empty one; brings an old one up to date; drops it.
    // Throw Exception named after the operation, with the database's own as its cause.
    void createTable();
    void upgradeTable();
    void dropTable();

    // Loads both tables into the caches, each half by itself: a half whose query or any of whose rows fails is logged
    // (0x300019E) and leaves its cache as it was; otherwise the cache is cleared and filled, expired records included.
    // Takes the caches' locks for each record; never throws an Exception. LoadReport.h says how it went.
    void read();
    // One half of it.
    void readTuples();
    void readExemptions();

    // Writes both caches as a script to Configuration::backupPath(), which appears whole or not at all, and hands it to
    // the database daemon. The caches' locks are held shared while their records are copied, not while text is made or
    // anybody is waited for. A record that no row can hold is left out and logged (0x3000199). One at a time in the
    // process: a second call waits. Never throws an Exception; answers whether the daemon accepted the script.
    bool write();

    // The same for a time when the server is away and this may be the last chance: the script waits in the database
    // daemon's journal until the server is back.
    static bool writeWithoutServer();

    // Runs a script, all or nothing. The caches are not loaded again. Logs a failure (0x300019C when there is no such
    // file, else 0x300019D) and never throws an Exception.
    void write(std::string const& path);
    // The same, throwing DatabaseException and telling how far it is.
    void runScript(Database::ScriptSource const& script, Database::QueryFile::Progress const& progress = nullptr);

  private:
    static bool writeScript(bool withServer);

    std::string m_databaseName;
    Database::Connection m_connection;
};

} // namespace Vellum::GreyList
