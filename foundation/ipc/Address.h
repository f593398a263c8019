// Socket addresses of the operating system, made from text and back.
#pragma once

#include "foundation/SocketAddress.h"

#include <string>
#include <sys/socket.h>

namespace Vellum::IPC {

struct SystemAddress {
    sockaddr_storage storage{};
    socklen_t length = sizeof(sockaddr_storage);

    // Throws Exception when `host` is not a numeric IPv4 or IPv6 address or the port is beyond 65535.
    static SystemAddress of(std::string const& host, unsigned int port);
    // The two ends of a socket; a null address with port 0 when it has none.
    static SystemAddress local(int socket);
    static SystemAddress peer(int socket);

    sockaddr* get() { return reinterpret_cast<sockaddr*>(&storage); }
    sockaddr const* get() const { return reinterpret_cast<sockaddr const*>(&storage); }
    int family() const { return storage.ss_family; }
    SocketAddress value() const;
};

} // namespace Vellum::IPC
