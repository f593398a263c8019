#include "foundation/database/ServerMap.h"

#include "foundation/database/Connection.h"

namespace Vellum::Database {

std::string Server::asString() const {
    return user + '@' + (socket.empty() ? host + ':' + std::to_string(port) : socket);
}

ServerMap& ServerMap::instance() {
    static ServerMap* const map = new ServerMap; // never destroyed: detached threads may still ask
    return *map;
}

void ServerMap::install(Server const& server) {
    Synchronized const held(m_lock);
    m_server = server;
}

Server ServerMap::server() const {
    Synchronized const held(m_lock);
    return m_server;
}

Server ServerMap::resolve(SocketAddress const& address, std::string const& user, std::string const& password) const {
    Server real = server();
    bool const onAppliance = address == Connection::defaultAddress();
    if (!onAppliance) {
        real.host = address.address().asString(true);
        real.port = address.port();
        real.socket.clear();
    }
    bool const applianceAccount = user.empty() || (user == "root" && password.empty());
    if (!onAppliance || !applianceAccount) {
        real.user = user;
        real.password = password;
    }
    return real;
}

} // namespace Vellum::Database
