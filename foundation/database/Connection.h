// One connection to the database server.
#pragma once

#include "foundation/SocketAddress.h"
#include "foundation/database/DatabaseException.h"
#include "foundation/database/ServerMap.h"
#include "include2/VellumRefcounted.h"

#include <cstdint>
#include <string>
#include <string_view>

struct st_mysql; // MYSQL of the client library

namespace Vellum::Database {

// Where all state that outlives the process is.
inline constexpr char const* senderHistoryDatabase = "fe_sender_history";

// The character set of our databases: texts keep their bytes and are compared byte by byte (why: see dbCreate()).
inline constexpr char const* byteWiseCollation = "latin1_nopad_bin";
inline constexpr char const* byteWiseCharacterSet = "CHARACTER SET latin1 COLLATE latin1_nopad_bin";

// An open session of its own, from construction to destruction; it never reconnects by itself, so nobody goes on in a
// session that has silently lost its locks and its transaction.
//
// Every session begins alike, whatever the server's configuration says:
//   names binary     bytes pass unchanged in both directions
//   sql_mode         strict (an overlong text or a number out of range is an error, never cut), no ANSI_QUOTES, no
//                    NO_BACKSLASH_ESCAPES: what the escaping and the statement splitter rely on
//   autocommit on    one statement, one transaction
//   lock waits       shorter than the read timeout, so that a wait ends with the server's answer
//
// Threads: used by one thread at a time; interrupt() alone may come from another.
// All operations throw DatabaseException.
class Connection : public RefImpl {
  public:
    // Connects. Address and user are looked up in ServerMap; `database` may be empty: none is selected then.
    Connection(std::string const& database, std::string const& user, std::string const& password,
               SocketAddress const& address);
    Connection(SocketAddress const& address, std::string const& database);
    // Connects to exactly this server, past the map.
    Connection(Server const& server, std::string const& database);
    ~Connection() override;
    Connection(Connection const&) = delete;
    Connection& operator=(Connection const&) = delete;

    // The appliance's database server, 127.0.0.1:3306; ServerMap says where that is.
    static SocketAddress defaultAddress();

    // From now on a Query on this connection may hold several statements; before, a second one is refused. The server
    // itself is never asked to split a text.
    void enableMultipleStatementsPerQuery() { m_multipleStatements = true; }
    bool multipleStatementsPerQuery() const { return m_multipleStatements; }

    // True when the database exists; it is selected then.
    bool dbSelectIfExists(std::string const& name);
    // Creates the database; an existing one is an error. Texts in it are compared byte by byte (see the .cpp).
    void dbCreate(std::string const& name);
    // Drops the database with everything in it; a missing one is an error.
    void dbDelete(std::string const& name);

    // Runs one statement as it stands, drops its result and answers how many rows it changed. `where` names the
    // caller's operation for the error text.
    std::uint64_t run(std::string_view statement, char const* where);

    // Ends the session from any thread: the statement in progress and all later ones fail as if the server had gone,
    // and the server rolls back. For a shutdown that must not wait for a slow statement.
    void interrupt();

    // Whether the server has ended the session while nothing was asked of it, as far as this end has heard: true means
    // that it has, false nothing. Costs a system call and does not wait.
    bool isAbandoned() const;

    // Whether the session is over: an error() of it has said so, or isAbandoned(). An error that concerns the statement
    // alone, such as a table that is not there, leaves it false.
    bool isLost() const { return m_hasBroken || isAbandoned(); }

    st_mysql* native() { return m_mysql; }
    // The error that the client library reports now, for the operation `where`.
    DatabaseException error(char const* where, std::string_view statement);

  private:
    void open(Server const& server, std::string const& database);
    void close();

    st_mysql* m_mysql = nullptr;
    int m_socket = -1;    // the session's socket once more, for interrupt(); constant once connected
    std::string m_server; // for error texts
    bool m_multipleStatements = false;
    bool m_hasBroken = false; // an error ended the session
};

using RefConnection = Ref<Connection>;

// `name` in backticks, backticks inside doubled. Refuses what cannot be a name: empty, longer than 64 bytes, NUL or
// another control character, a trailing blank, bytes outside of ASCII.
std::string quotedIdentifier(std::string const& name);

} // namespace Vellum::Database
