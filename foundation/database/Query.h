// SQL text, streamed together and run.
#pragma once

#include "foundation/database/Connection.h"
#include "foundation/database/RowParser.h"

#include <cstdint>
#include <sstream>

namespace Vellum::Database {

// An output stream that takes the text of one statement, or of several when the connection allows it.
//
// execute() splits the text itself (StatementSplitter.h: empty statements are skipped, a NUL ends the text) and runs
// the statements one by one, each after the server's answer to the one before. The first that fails ends it; what ran
// before stays done, because outside of a script every statement is a transaction of its own.
// A result is fetched whole before its parser sees it, so a slow parser holds nothing up in the server.
class Query : public std::ostringstream {
  public:
    // `parser` may be null: results are dropped. Connection and parser are borrowed for the query's life. The flag is
    // accepted for the callers that say it; every query behaves as true asks for: a result is stored by the client.
    Query(Connection& connection, RowParser* parser, bool);

    // Throws DatabaseException with the server's message and the statement in short, also for a text without any
    // statement and for a second statement where one is allowed; an exception of the parser passes unchanged.
    void execute();

    // Rows that the statements changed, all together.
    std::uint64_t affectedRows() const { return m_affectedRows; }

  private:
    void run(std::string const& statement);

    Connection& m_connection;
    RowParser* m_parser;
    std::uint64_t m_affectedRows = 0;
};

} // namespace Vellum::Database
