#include "daemon/ListeningSocket.h"

#include "foundation/Escape.h"
#include "foundation/Exception.h"

#include <cerrno>
#include <charconv>
#include <cstring>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <system_error>

namespace Vellum::Daemon {
namespace {

constexpr std::string_view inetPrefix = "inet:";
constexpr std::string_view unixPrefix = "unix:";
constexpr std::size_t longestPath = sizeof(sockaddr_un::sun_path) - 1;

[[noreturn]] void refuseAddress(std::string_view text) {
    throw Exception("ListenAddress::parse", Exception::failure, "ListeningSocket")
        .stringParameter('"' + escapeForLog(text.substr(0, 200)) +
                         "\" is neither inet:ADDRESS:PORT (an IPv6 address in brackets) nor unix:/PATH (at most " +
                         std::to_string(longestPath) + " bytes)");
}

unsigned int parsePort(std::string_view text, std::string_view whole) {
    unsigned int port = 0;
    auto const [end, error] = std::from_chars(text.data(), text.data() + text.size(), port);
    if (error != std::errc() || end != text.data() + text.size() || port > 65535) {
        refuseAddress(whole);
    }
    return port;
}

SocketAddress parseInet(std::string_view text, std::string_view whole) {
    std::size_t const colon = text.rfind(':');
    if (colon == std::string_view::npos) {
        refuseAddress(whole);
    }
    std::string_view host = text.substr(0, colon);
    bool const bracketed = host.size() > 2 && host.front() == '[' && host.back() == ']';
    if (bracketed) {
        host = host.substr(1, host.size() - 2);
    }
    unsigned int const port = parsePort(text.substr(colon + 1), whole);
    try {
        IPAddress const address{std::string(host)};
        if (address.isV6() == bracketed) {
            return {address, port};
        }
    } catch (Exception const&) {
        // Refused below, with the whole text and what is allowed.
    }
    refuseAddress(whole);
}

} // namespace

ListenAddress ListenAddress::parse(std::string_view text) {
    if (text.starts_with(inetPrefix)) {
        return {parseInet(text.substr(inetPrefix.size()), text), {}};
    }
    if (!text.starts_with(unixPrefix)) {
        refuseAddress(text);
    }
    std::string_view const path = text.substr(unixPrefix.size());
    bool const usable = path.size() > 1 && path.size() <= longestPath && path.front() == '/' && path.back() != '/' &&
                        path.find('\0') == std::string_view::npos;
    if (!usable) {
        refuseAddress(text);
    }
    return {{}, std::string(path)};
}

std::string ListenAddress::asString() const {
    return isUnix() ? std::string(unixPrefix) + path : std::string(inetPrefix) + inet.asString();
}

ListeningSocket::ListeningSocket(ListenAddress const& address, mode_t unixMode) : m_address(address) {
    if (address.isUnix()) {
        m_unix.emplace(address.path, unixMode);
    } else {
        listenInet();
    }
}

void ListeningSocket::listenInet() {
    bool const isV6 = m_address.inet.address().isV6();
    m_inet = FileDescriptor(socket(isV6 ? AF_INET6 : AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!m_inet) {
        fail("socket");
    }
    // Accepted connections inherit these. An answer is one small segment that nothing follows, and a peer whose machine
    // is gone never says so: only the kernel's probes tell it from one that has nothing to ask.
    setOption(SOL_SOCKET, SO_REUSEADDR);
    setOption(SOL_SOCKET, SO_KEEPALIVE);
    setOption(IPPROTO_TCP, TCP_NODELAY);
    if (isV6) {
        setOption(IPPROTO_IPV6, IPV6_V6ONLY);
    }
    auto const& bytes = m_address.inet.address().bytes();
    auto const port = htons(static_cast<std::uint16_t>(m_address.inet.port()));
    sockaddr_in v4{AF_INET, port, {}, {}};
    sockaddr_in6 v6{AF_INET6, port, 0, {}, 0};
    std::memcpy(&v4.sin_addr, bytes.data(), sizeof v4.sin_addr);
    std::memcpy(&v6.sin6_addr, bytes.data(), sizeof v6.sin6_addr);
    auto* const address = isV6 ? reinterpret_cast<sockaddr*>(&v6) : reinterpret_cast<sockaddr*>(&v4);
    socklen_t length = isV6 ? sizeof v6 : sizeof v4;
    if (bind(m_inet.get(), address, length) != 0) {
        fail("bind");
    }
    if (listen(m_inet.get(), SOMAXCONN) != 0) {
        fail("listen");
    }
    if (getsockname(m_inet.get(), address, &length) != 0) {
        fail("getsockname");
    }
    m_address.inet = {m_address.inet.address(), ntohs(isV6 ? v6.sin6_port : v4.sin_port)};
}

void ListeningSocket::setOption(int level, int option) const {
    int const on = 1;
    if (setsockopt(m_inet.get(), level, option, &on, sizeof on) != 0) {
        fail("setsockopt");
    }
}

void ListeningSocket::fail(char const* operation) const {
    throw Exception("ListeningSocket::ListeningSocket", Exception::failure, "ListeningSocket")
        .stringParameter(m_address.asString() + ": " + operation + ": " + std::generic_category().message(errno));
}

} // namespace Vellum::Daemon
