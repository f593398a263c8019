#include "daemon/ListeningSocket.h"

#include "foundation/Escape.h"
#include "foundation/Exception.h"

#include <cerrno>
#include <charconv>
#include <cstring>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <system_error>
#include <unistd.h>

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

sockaddr_un unixAddress(std::string const& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(static_cast<char*>(address.sun_path), longestPath);
    return address;
}

// What connecting to the socket file answers: 0, or the error.
int connectError(std::string const& path) {
    int const probe = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (probe < 0) {
        return errno;
    }
    sockaddr_un const address = unixAddress(path);
    int const error = connect(probe, reinterpret_cast<sockaddr const*>(&address), sizeof address) == 0 ? 0 : errno;
    close(probe);
    return error;
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
    try {
        if (m_address.isUnix()) {
            listenUnix(unixMode);
        } else {
            listenInet();
        }
    } catch (...) {
        release();
        throw;
    }
}

ListeningSocket::~ListeningSocket() {
    release();
}

void ListeningSocket::release() {
    struct stat now {};
    if (m_inode != 0 && lstat(m_address.path.c_str(), &now) == 0 && now.st_dev == m_device && now.st_ino == m_inode) {
        unlink(m_address.path.c_str());
    }
    if (m_descriptor >= 0) {
        close(m_descriptor);
    }
}

void ListeningSocket::open(int family) {
    m_descriptor = socket(family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (m_descriptor < 0) {
        fail("socket", errno);
    }
}

void ListeningSocket::listenInet() {
    bool const isV6 = m_address.inet.address().isV6();
    open(isV6 ? AF_INET6 : AF_INET);
    // Accepted connections inherit these. An answer is one small segment that nothing follows, and a peer whose machine
    // is gone never says so: only the kernel's probes tell it from one that has nothing to ask.
    int const on = 1;
    setsockopt(m_descriptor, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    setsockopt(m_descriptor, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on);
    setsockopt(m_descriptor, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    auto const& bytes = m_address.inet.address().bytes();
    auto const port = htons(static_cast<std::uint16_t>(m_address.inet.port()));
    sockaddr_in v4{AF_INET, port, {}, {}};
    sockaddr_in6 v6{AF_INET6, port, 0, {}, 0};
    std::memcpy(&v4.sin_addr, bytes.data(), sizeof v4.sin_addr);
    std::memcpy(&v6.sin6_addr, bytes.data(), sizeof v6.sin6_addr);
    auto* const address = isV6 ? reinterpret_cast<sockaddr*>(&v6) : reinterpret_cast<sockaddr*>(&v4);
    socklen_t length = isV6 ? sizeof v6 : sizeof v4;
    if (isV6) {
        setsockopt(m_descriptor, IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof on);
    }
    if (bind(m_descriptor, address, length) != 0) {
        fail("bind", errno);
    }
    if (listen(m_descriptor, SOMAXCONN) != 0) {
        fail("listen", errno);
    }
    if (getsockname(m_descriptor, address, &length) != 0) {
        fail("getsockname", errno);
    }
    m_address.inet = {m_address.inet.address(), ntohs(isV6 ? v6.sin6_port : v4.sin_port)};
}

void ListeningSocket::listenUnix(mode_t mode) {
    removeStaleFile();
    open(AF_UNIX);
    // Before bind(), this sets the permissions that the file is made with (less the umask); the umask's bits come back
    // afterwards. So the file is never open to more users than it should be.
    if (fchmod(m_descriptor, mode) != 0) {
        fail("fchmod", errno);
    }
    sockaddr_un const address = unixAddress(m_address.path);
    if (bind(m_descriptor, reinterpret_cast<sockaddr const*>(&address), sizeof address) != 0) {
        fail("bind", errno);
    }
    struct stat made {};
    if (lstat(m_address.path.c_str(), &made) != 0) {
        fail("lstat", errno);
    }
    m_device = made.st_dev;
    m_inode = made.st_ino;
    if ((made.st_mode & ALLPERMS) != mode &&
        fchmodat(AT_FDCWD, m_address.path.c_str(), mode, AT_SYMLINK_NOFOLLOW) != 0) {
        fail("chmod", errno);
    }
    if (listen(m_descriptor, SOMAXCONN) != 0) {
        fail("listen", errno);
    }
}

void ListeningSocket::removeStaleFile() const {
    struct stat found {};
    if (lstat(m_address.path.c_str(), &found) != 0) {
        return; // nothing there, or bind() will say what is wrong with the path
    }
    if (!S_ISSOCK(found.st_mode)) {
        throw Exception("ListeningSocket::ListeningSocket", Exception::failure, "ListeningSocket")
            .stringParameter(m_address.asString() + ": something that is not a socket is there already");
    }
    int const error = connectError(m_address.path);
    if (error == 0 || error == EAGAIN) { // its queue may be full
        throw Exception("ListeningSocket::ListeningSocket", Exception::failure, "ListeningSocket")
            .stringParameter(m_address.asString() + ": another process listens there");
    }
    if (error != ECONNREFUSED) {
        fail("connect, to see whether the socket there is in use", error);
    }
    if (unlink(m_address.path.c_str()) != 0) {
        fail("unlink of the left-over socket", errno);
    }
}

void ListeningSocket::fail(std::string const& operation, int error) const {
    throw Exception("ListeningSocket::ListeningSocket", Exception::failure, "ListeningSocket")
        .stringParameter(m_address.asString() + ": " + operation + ": " + std::generic_category().message(error));
}

} // namespace Vellum::Daemon
