// Where the database really is.
//
// The code names the server, the user and the databases of the appliance: 127.0.0.1:3306, user empty or "root", no
// password. This map turns such a name into the real server of the settings, so the same code runs against a private
// server on any port or socket, and no account without a password is needed anywhere.
#pragma once

#include "foundation/Locks.h"
#include "foundation/SocketAddress.h"

#include <string>

namespace Vellum::Database {

// How to reach a server. A value.
struct Server {
    std::string host = "127.0.0.1"; // name or address; unused when `socket` is given
    unsigned int port = 3306;
    std::string socket; // path of the server's Unix socket; empty: TCP
    std::string user = "vellum";
    std::string password; // never part of any text
    bool tls = false;     // require TLS
    std::string tlsCa;    // file with the certificate authorities to trust; empty: encrypt without checking the name
    unsigned int connectTimeoutSeconds = 5;
    unsigned int readTimeoutSeconds = 60; // for the answer to one statement; lock waits in the server end before it
    unsigned int writeTimeoutSeconds = 60;

    // "vellum@127.0.0.1:3306" or "vellum@/run/mysqld/mysqld.sock", for messages.
    std::string asString() const;
};

// The process's map. Thread-safe; a connection that is already open keeps its server.
class ServerMap {
  public:
    static ServerMap& instance();

    // Makes `server` the one that the appliance's names stand for.
    void install(Server const& server);
    Server server() const;

    // What a connection to `address` as `user` really means. The appliance's address is replaced by the installed
    // server; there an empty user, and root without a password, become the installed user with its password. Any
    // other address or user is meant as it is written; timeouts and TLS are always those installed.
    Server resolve(SocketAddress const& address, std::string const& user, std::string const& password) const;

  private:
    mutable Mutex m_lock;
    Server m_server VELLUM_GUARDED_BY(m_lock);
};

} // namespace Vellum::Database
