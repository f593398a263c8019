#include "foundation/database/Connection.h"

#include <errmsg.h>
#include <mysql.h>
#include <mysqld_error.h>

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <mutex>
#include <new>
#include <sys/socket.h>
#include <unistd.h>

namespace Vellum::Database {

namespace {

constexpr std::size_t longestName = 64; // of a database or table, as the server has it

// The server's own database. Whoever opens it only wants a session, so an account that may not look into it is served
// without a selected database, and so is a server that has none.
constexpr char const* alwaysThere = "mysql";

// The client library prepares itself at the first mysql_init(), but not safely from two threads.
void prepareLibrary() {
    static std::once_flag prepared;
    std::call_once(prepared, [] { mysql_library_init(0, nullptr, nullptr); });
}

void setOptions(MYSQL* mysql, Server const& server) {
    mysql_options(mysql, MYSQL_SET_CHARSET_NAME, "binary");
    mysql_options(mysql, MYSQL_OPT_CONNECT_TIMEOUT, &server.connectTimeoutSeconds);
    mysql_options(mysql, MYSQL_OPT_READ_TIMEOUT, &server.readTimeoutSeconds);
    mysql_options(mysql, MYSQL_OPT_WRITE_TIMEOUT, &server.writeTimeoutSeconds);
    unsigned int const localFiles = 0; // no server may ask this process for a file
    mysql_options(mysql, MYSQL_OPT_LOCAL_INFILE, &localFiles);
    // Told, because to the library the name "localhost" would mean a socket at a path of its own.
    unsigned int const protocol = server.socket.empty() ? MYSQL_PROTOCOL_TCP : MYSQL_PROTOCOL_SOCKET;
    mysql_options(mysql, MYSQL_OPT_PROTOCOL, &protocol);
    if (server.tls) {
        my_bool const enforce = 1;
        mysql_options(mysql, MYSQL_OPT_SSL_ENFORCE, &enforce);
        if (!server.tlsCa.empty()) {
            mysql_options(mysql, MYSQL_OPT_SSL_CA, server.tlsCa.c_str());
            mysql_options(mysql, MYSQL_OPT_SSL_VERIFY_SERVER_CERT, &enforce);
        }
    }
}

// Lock waits end before the read timeout does: then the server says what it waited for, and this session lives on.
std::string sessionSettings(Server const& server) {
    unsigned int const lockWait = std::max(2U, server.readTimeoutSeconds - server.readTimeoutSeconds / 4) - 1;
    std::string const wait = std::to_string(lockWait);
    return "SET NAMES binary, SESSION sql_mode='STRICT_ALL_TABLES,ERROR_FOR_DIVISION_BY_ZERO,NO_ENGINE_SUBSTITUTION', "
           "SESSION autocommit=1, SESSION lock_wait_timeout=" +
           wait + ", SESSION innodb_lock_wait_timeout=" + wait;
}

} // namespace

Connection::Connection(std::string const& database, std::string const& user, std::string const& password,
                       SocketAddress const& address)
    : Connection(ServerMap::instance().resolve(address, user, password), database) {}

Connection::Connection(SocketAddress const& address, std::string const& database)
    : Connection(database, "", "", address) {}

Connection::Connection(Server const& server, std::string const& database) {
    open(server, database);
}

Connection::~Connection() {
    close();
}

void Connection::close() {
    mysql_close(m_mysql);
    m_mysql = nullptr;
    if (m_socket >= 0) {
        ::close(m_socket);
    }
}

SocketAddress Connection::defaultAddress() {
    return {IPAddress("127.0.0.1"), 3306};
}

void Connection::open(Server const& server, std::string const& database) {
    m_server = server.asString();
    prepareLibrary();
    m_mysql = mysql_init(nullptr);
    if (m_mysql == nullptr) {
        throw std::bad_alloc();
    }
    setOptions(m_mysql, server);
    bool const selectLater = database.empty() || database == alwaysThere;
    try {
        if (mysql_real_connect(m_mysql, server.socket.empty() ? server.host.c_str() : nullptr, server.user.c_str(),
                               server.password.c_str(), selectLater ? nullptr : database.c_str(), server.port,
                               server.socket.empty() ? nullptr : server.socket.c_str(), 0) == nullptr) {
            DatabaseException const refused = error("Connection", "");
            throw DatabaseException("Connection", refused.serverError(),
                                    refused.message() + (database.empty() ? "" : "; database \"" + database + '"'),
                                    true);
        }
        if (server.tls && mysql_get_ssl_cipher(m_mysql) == nullptr) { // the library goes on without it
            throw DatabaseException("Connection", CR_SSL_CONNECTION_ERROR,
                                    m_server + " does not offer TLS, which the settings require", true);
        }
        run(sessionSettings(server), "Connection");
        if (database == alwaysThere && mysql_select_db(m_mysql, alwaysThere) != 0 &&
            mysql_errno(m_mysql) != ER_DBACCESS_DENIED_ERROR && mysql_errno(m_mysql) != ER_BAD_DB_ERROR) {
            throw error("Connection", "");
        }
        // A descriptor of our own: the library closes its own when the connection breaks, and by then interrupt()
        // could hit somebody else's.
        m_socket = fcntl(mysql_get_socket(m_mysql), F_DUPFD_CLOEXEC, 0);
    } catch (...) {
        close();
        throw;
    }
}

bool Connection::dbSelectIfExists(std::string const& name) {
    if (mysql_select_db(m_mysql, name.c_str()) == 0) {
        return true;
    }
    if (mysql_errno(m_mysql) == ER_BAD_DB_ERROR) {
        return false;
    }
    throw error("Connection::dbSelectIfExists", name);
}

// The collation is the heart of it. The caches tell two keys apart when a single byte differs, so the tables' primary
// keys must do the same; the server's own default is blind to letter case and to trailing blanks, and one such pair
// fails a whole INSERT of 1000 rows. "bin" compares bytes, "nopad" counts trailing blanks. The character set is latin1
// because any byte is a character of it: UTF-8 and bytes that are none go in and come out unchanged, one byte counts
// one towards varchar(128), and the columns stay varchar, as their statements say.
void Connection::dbCreate(std::string const& name) {
    run("CREATE DATABASE " + quotedIdentifier(name) + " " + byteWiseCharacterSet, "Connection::dbCreate");
}

void Connection::dbDelete(std::string const& name) {
    run("DROP DATABASE " + quotedIdentifier(name), "Connection::dbDelete");
}

std::uint64_t Connection::run(std::string_view statement, char const* where) {
    if (mysql_real_query(m_mysql, statement.data(), statement.size()) != 0) {
        throw error(where, statement);
    }
    std::uint64_t changed = 0;
    int next = 0;
    do { // a CALL answers with several results
        MYSQL_RES* const dropped = mysql_store_result(m_mysql);
        mysql_free_result(dropped);
        if (dropped == nullptr) {
            if (mysql_errno(m_mysql) != 0) {
                throw error(where, statement);
            }
            changed += mysql_affected_rows(m_mysql);
        }
        next = mysql_next_result(m_mysql);
    } while (next == 0);
    if (next > 0) {
        throw error(where, statement);
    }
    return changed;
}

void Connection::interrupt() {
    if (m_socket >= 0) {
        shutdown(m_socket, SHUT_RDWR);
    }
}

bool Connection::isAbandoned() const {
    char byte = 0;
    ssize_t const received = recv(m_socket, &byte, sizeof byte, MSG_PEEK | MSG_DONTWAIT);
    if (received > 0) {
        return mysql_get_ssl_cipher(m_mysql) ==
               nullptr; // TLS has things to say of its own; a server only says farewell
    }
    return received == 0 || (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR);
}

DatabaseException Connection::error(char const* where, std::string_view statement) {
    unsigned int const number = mysql_errno(m_mysql);
    std::string text =
        number == 0 ? "the client library failed without an error number, as for want of memory, with " + m_server
                    : "error " + std::to_string(number) + " from " + m_server + ": " + mysql_error(m_mysql);
    if (!statement.empty()) {
        text += "; statement: " + shortenedStatement(statement);
    }
    DatabaseException failed(where, number, text);
    m_hasBroken = m_hasBroken || failed.connectionLost();
    // A server's refusal has a number. Without one the client library itself has failed, as it does for want of memory.
    return number == 0 ? failed.asPassing() : failed;
}

std::string quotedIdentifier(std::string const& name) {
    auto const unfit = [](char c) {
        return static_cast<unsigned char>(c) < 0x20 || static_cast<unsigned char>(c) > 0x7e;
    };
    if (name.empty() || name.size() > longestName || name.back() == ' ' ||
        std::any_of(name.begin(), name.end(), unfit)) {
        throw DatabaseException("quotedIdentifier", 0,
                                '"' + name +
                                    "\" cannot be a name: expected 1 to 64 printable ASCII characters, no "
                                    "blank at the end");
    }
    std::string quoted = "`";
    for (char const c : name) {
        quoted.append(c == '`' ? 2 : 1, c);
    }
    return quoted + '`';
}

} // namespace Vellum::Database
