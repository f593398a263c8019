// A database server that nobody can connect to, for as long as this lives.
#pragma once

#include "foundation/database/ServerMap.h"
#include "tests/support/PrivateMariaDb.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <stdexcept>
#include <sys/socket.h>
#include <unistd.h>

namespace Vellum {

// Its port is bound but nothing listens there, so that nobody else can.
class UnreachableServer {
  public:
    UnreachableServer() : m_socket(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)), m_installed(reserve()) {}
    ~UnreachableServer() { close(m_socket); }
    UnreachableServer(UnreachableServer const&) = delete;
    UnreachableServer& operator=(UnreachableServer const&) = delete;

  private:
    Database::Server reserve() const {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        if (bind(m_socket, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
            getsockname(m_socket, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
            throw std::runtime_error("no port");
        }
        Database::Server server;
        server.port = ntohs(address.sin_port);
        return server;
    }

    int m_socket;
    InstalledServer m_installed;
};

} // namespace Vellum
