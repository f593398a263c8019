#include "foundation/database/DatabaseException.h"

#include <errmsg.h>
#include <mysqld_error.h>

namespace Vellum::Database {

namespace {

constexpr std::size_t shownStatementBytes = 200;

// Numbers of the server's messages that its headers for clients leave out.
constexpr unsigned int connectionKilled = 1927;

bool endsTheConnection(unsigned int error) {
    switch (error) {
    case CR_SERVER_GONE_ERROR:
    case CR_SERVER_LOST:
    case CR_SERVER_LOST_EXTENDED:
    case CR_CONNECTION_ERROR:
    case CR_CONN_HOST_ERROR:
    case CR_SERVER_HANDSHAKE_ERR:
    case CR_COMMANDS_OUT_OF_SYNC: // the session's state is unknown
    case CR_MALFORMED_PACKET:
    case CR_SSL_CONNECTION_ERROR:
    case ER_SERVER_SHUTDOWN:
    case ER_NORMAL_SHUTDOWN:
    case ER_NET_READ_ERROR:
    case ER_NET_READ_INTERRUPTED:
    case ER_NET_ERROR_ON_WRITE:
    case ER_NET_WRITE_INTERRUPTED:
    case connectionKilled:
        return true;
    default:
        return false;
    }
}

bool isPassing(unsigned int error) {
    switch (error) {
    case ER_LOCK_WAIT_TIMEOUT:
    case ER_LOCK_DEADLOCK:
    case ER_LOCK_TABLE_FULL:
    case ER_QUERY_INTERRUPTED:
    case ER_DISK_FULL:
    case ER_RECORD_FILE_FULL:
    case ER_OUTOFMEMORY:
    case CR_OUT_OF_MEMORY: // the client's own
    case ER_OUT_OF_RESOURCES:
    case ER_CON_COUNT_ERROR:
    case ER_OPTION_PREVENTS_STATEMENT: // a server that is read-only for now
    case ER_CANT_EXECUTE_IN_READ_ONLY_TRANSACTION:
        return true;
    default:
        return false;
    }
}

Exception asException(std::string const& where, std::string const& message) {
    return Exception(where, Exception::failure).stringParameter(message);
}

} // namespace

DatabaseException::DatabaseException(std::string const& where, unsigned int serverError, std::string const& message,
                                     bool neverConnected)
    : Exception(asException(where, message)), m_serverError(serverError),
      m_connectionLost(neverConnected || endsTheConnection(serverError)), m_message(message) {}

bool DatabaseException::worthRetrying() const {
    return m_connectionLost || m_passing || isPassing(m_serverError);
}

bool DatabaseException::serverIsAway() const {
    switch (m_serverError) {
    case CR_CONNECTION_ERROR:
    case CR_CONN_HOST_ERROR:
    case CR_UNKNOWN_HOST: // names may come later than we do when a machine starts
    case CR_SERVER_GONE_ERROR:
    case CR_SERVER_LOST:
    case CR_SERVER_LOST_EXTENDED:
    case ER_CON_COUNT_ERROR:
    case ER_TOO_MANY_USER_CONNECTIONS:
    case ER_OUT_OF_RESOURCES:
    case ER_SERVER_SHUTDOWN:
    case ER_NORMAL_SHUTDOWN:
        return true;
    default:
        return false;
    }
}

DatabaseException DatabaseException::asPassing() const {
    DatabaseException passing(*this);
    passing.m_passing = true;
    return passing;
}

DatabaseException DatabaseException::within(std::string const& outer, std::string const& context) const {
    DatabaseException const outward(outer, m_serverError, context + ": " + m_message, m_connectionLost);
    return m_passing ? outward.asPassing() : outward;
}

std::string shortenedStatement(std::string_view statement) {
    if (statement.size() <= shownStatementBytes) {
        return std::string(statement);
    }
    return std::string(statement.substr(0, shownStatementBytes)) + "... (" + std::to_string(statement.size()) +
           " bytes)";
}

} // namespace Vellum::Database
