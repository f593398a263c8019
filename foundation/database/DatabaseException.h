// The error type of the database layer.
#pragma once

#include "foundation/Exception.h"

#include <string>
#include <string_view>

namespace Vellum::Database {

// Thrown by every operation of the layer. Beside the text it says what a caller may want to decide by: the server's
// own error number, whether the connection is gone, and whether the same work may succeed later without a change.
//
// The text never holds a password; a statement in it is shortened (see shortenedStatement()).
class DatabaseException : public Exception {
  public:
    // `serverError`: the server's or the client library's number (1146, 2013, ...), 0 when neither was involved.
    // `message`: what happened, with the offending value. `neverConnected`: there is no session after this error.
    DatabaseException(std::string const& where, unsigned int serverError, std::string const& message,
                      bool neverConnected = false);

    unsigned int serverError() const { return m_serverError; }

    // The connection cannot be used any more, or never came up. The server has rolled back what was not committed.
    bool connectionLost() const { return m_connectionLost; }

    // The cause lies outside of the statement (no server, a lock held by somebody else, a full disk, a server that is
    // going down, a script that cannot be read now): the same statement may succeed later.
    bool worthRetrying() const;

    // No server answers, or it takes no session for now: it starts, ends, or has too many connections. Waiting helps,
    // as it does not against a refused password or a wrong certificate.
    bool serverIsAway() const;

    // The same error as one that is worth retrying, where no number says so.
    DatabaseException asPassing() const;

    // What happened, without the operation's name.
    std::string const& message() const { return m_message; }
    // The same error as an outer operation met it: its name, `context` in front of the message, all else kept.
    DatabaseException within(std::string const& outer, std::string const& context) const;

  private:
    unsigned int m_serverError;
    bool m_connectionLost;
    bool m_passing = false;
    std::string m_message;
};

// The beginning of a statement for an error text: at most 200 bytes, the rest given as a number of bytes.
std::string shortenedStatement(std::string_view statement);

} // namespace Vellum::Database
