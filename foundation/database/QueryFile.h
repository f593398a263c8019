// Runs a script file, all or nothing.
#pragma once

#include "foundation/database/Connection.h"

#include <cstdint>
#include <functional>
#include <string>
#include <utility>

namespace Vellum::Database {

class ScriptRun;
struct Statement;

// Where a script is: at a path, or in a file that is open already and is read from its beginning, wherever the path
// leads by then.
struct ScriptSource {
    ScriptSource(std::string name) : path(std::move(name)) {} // a path is a source
    ScriptSource(std::string name, int opened) : path(std::move(name)), descriptor(opened) {}

    std::string path;
    int descriptor = -1; // borrowed; -1: the file at the path is opened
};

// A script of the form that backups write:
//
//   LOCK TABLES grey_list WRITE,autoexempt WRITE;
//   delete from grey_list;
//   INSERT INTO grey_list VALUES
//   ('192.0.2.0/24', ...), ...;
//   commit;
//   ...
//   UNLOCK TABLES;
//
// The file is streamed, never read whole, and runs as one transaction: autocommit is off, a commit in the middle is
// held back, and the one commit is made when the last statement has succeeded and the file is at its end. Whatever
// goes wrong before (a statement, the connection, this process, the server) leaves the rows as they were, unless a
// table has an engine without transactions; the error text says when that happened. Only when the connection is lost
// during the very commit it is unknown whether the old rows are there or the new ones; it is one of the two, whole.
//
// The transaction must not end early, so only statements that cannot end it are let through:
//   INSERT, REPLACE, UPDATE, DELETE, SELECT, WITH, VALUES, SHOW, DO, SET @variable    run
//   LOCK TABLES, CREATE TABLE, CREATE DATABASE    run, before the first change only: they commit by themselves
//   COMMIT                                       held back
//   UNLOCK TABLES                                held back, ends the script: it commits by itself
//   BEGIN, START TRANSACTION, SET autocommit=0    dropped before the first change, refused behind it
// Anything else (DROP, ALTER, TRUNCATE, RENAME, other settings, ROLLBACK, CALL, ...) is refused.
//
// A script that was cut off is refused: with LOCK TABLES it must end with UNLOCK TABLES, otherwise with COMMIT.
class QueryFile {
  public:
    // Called after every statement with the bytes read so far and the file's size; false abandons the script.
    using Progress = std::function<bool(std::uint64_t done, std::uint64_t total)>;

    QueryFile(Connection& connection, ScriptSource const& script);

    void onProgress(Progress progress) { m_progress = std::move(progress); }

    // Runs the file. Throws DatabaseException naming the file, the statement's number and line, the server's message
    // and the statement in short. Afterwards, also after a failure, nothing is locked and autocommit is on again.
    void execute();

    // Statements run by execute(), and rows they changed.
    std::uint64_t statements() const { return m_statements; }
    std::uint64_t affectedRows() const { return m_affectedRows; }

  private:
    void takeStatement(Statement const& statement, ScriptRun& run);

    Connection& m_connection; // borrowed
    ScriptSource m_script;
    Progress m_progress;
    std::uint64_t m_statements = 0;
    std::uint64_t m_affectedRows = 0;
};

} // namespace Vellum::Database
