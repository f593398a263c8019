#include "foundation/ipc/Address.h"

#include "foundation/Exception.h"

#include <cstring>
#include <netinet/in.h>

namespace Vellum::IPC {
namespace {

constexpr unsigned int highestPort = 65535;

// Either end of a socket, as getsockname() or getpeername() answer it.
template <class Ask>
SystemAddress ask(Ask end, int socket) {
    SystemAddress answer;
    if (end(socket, answer.get(), &answer.length) != 0) {
        answer = SystemAddress{};
    }
    return answer;
}

} // namespace

SystemAddress SystemAddress::of(std::string const& host, unsigned int port) {
    IPAddress const address(host);
    if (port > highestPort) {
        throw Exception("SystemAddress::of", Exception::failure, "Address")
            .stringParameter("port " + std::to_string(port) + " of " + host + " is beyond 65535");
    }
    SystemAddress made;
    auto const networkPort = htons(static_cast<std::uint16_t>(port));
    if (address.isV4()) {
        sockaddr_in v4{};
        v4.sin_family = AF_INET;
        v4.sin_port = networkPort;
        std::memcpy(&v4.sin_addr, address.bytes().data(), sizeof v4.sin_addr);
        std::memcpy(&made.storage, &v4, sizeof v4);
        made.length = sizeof v4;
    } else {
        sockaddr_in6 v6{};
        v6.sin6_family = AF_INET6;
        v6.sin6_port = networkPort;
        std::memcpy(&v6.sin6_addr, address.bytes().data(), sizeof v6.sin6_addr);
        std::memcpy(&made.storage, &v6, sizeof v6);
        made.length = sizeof v6;
    }
    return made;
}

SystemAddress SystemAddress::local(int socket) {
    return ask(::getsockname, socket);
}

SystemAddress SystemAddress::peer(int socket) {
    return ask(::getpeername, socket);
}

SocketAddress SystemAddress::value() const {
    ip_addr_t raw{};
    std::uint16_t port = 0;
    if (family() == AF_INET) {
        sockaddr_in v4{};
        std::memcpy(&v4, &storage, sizeof v4);
        raw.family = 4;
        std::memcpy(raw.bytes, &v4.sin_addr, sizeof v4.sin_addr);
        port = v4.sin_port;
    } else if (family() == AF_INET6) {
        sockaddr_in6 v6{};
        std::memcpy(&v6, &storage, sizeof v6);
        raw.family = 6;
        std::memcpy(raw.bytes, &v6.sin6_addr, sizeof v6.sin6_addr);
        port = v6.sin6_port;
    }
    return {IPAddress(raw), ntohs(port)};
}

} // namespace Vellum::IPC
