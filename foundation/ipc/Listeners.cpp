#include "foundation/ipc/Listeners.h"

#include "foundation/Exception.h"
#include "foundation/ipc/Address.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <system_error>

namespace Vellum::IPC {
namespace {

// A port that the kernel chose for the first address may be taken on the second.
constexpr int attemptsWithChosenPort = 16;

FileDescriptor openSpare() {
    return FileDescriptor(::open("/dev/null", O_RDONLY | O_CLOEXEC));
}

bool isExhaustion(int error) {
    return error == EMFILE || error == ENFILE;
}

} // namespace

Listeners::Listeners(std::vector<std::string> const& addresses, unsigned int port) : m_spare(openSpare()) {
    if (addresses.empty()) {
        throw Exception("Dispatcher::start", Exception::failure, "Listeners")
            .stringParameter("no address to listen on");
    }
    int attempts = port == 0 ? attemptsWithChosenPort : 1;
    while (!open(addresses, port)) {
        if (--attempts == 0) {
            throw Exception("Dispatcher::start", Exception::failure, "Listeners")
                .stringParameter("port " + std::to_string(port) + " of " + addresses[m_sockets.size()] +
                                 " is in use already");
        }
    }
}

bool Listeners::open(std::vector<std::string> const& addresses, unsigned int port) {
    m_sockets.clear();
    m_port = port;
    for (std::string const& host : addresses) {
        SystemAddress const address = SystemAddress::of(host, m_port);
        FileDescriptor socket(::socket(address.family(), SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
        int const on = 1;
        ::setsockopt(socket.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
        if (address.family() == AF_INET6) {
            ::setsockopt(socket.get(), IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof on);
        }
        ::setsockopt(socket.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on); // inherited by connections
        if (!socket || ::bind(socket.get(), address.get(), address.length) != 0 ||
            ::listen(socket.get(), SOMAXCONN) != 0) {
            if (errno == EADDRINUSE) {
                return false;
            }
            throw Exception("Dispatcher::start", Exception::failure, "Listeners")
                .stringParameter("cannot listen on port " + std::to_string(m_port) + " of " + host + ": " +
                                 std::generic_category().message(errno));
        }
        m_port = SystemAddress::local(socket.get()).value().port();
        m_sockets.push_back(std::move(socket));
    }
    return true;
}

bool Listeners::contains(int descriptor) const {
    return std::any_of(m_sockets.begin(), m_sockets.end(),
                       [&](FileDescriptor const& socket) { return socket.get() == descriptor; });
}

// None when the peer was gone already.
std::optional<Listeners::Outcome> Listeners::turnAway(int listener) {
    m_spare.reset();
    FileDescriptor turnedAway(::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC));
    int const error = turnedAway ? 0 : errno;
    turnedAway.reset();
    m_spare = openSpare();
    if (error == 0) {
        return Outcome::exhausted;
    }
    if (error == EAGAIN) { // nobody had to: the kernel wants a descriptor before it looks
        return Outcome::none;
    }
    return isExhaustion(error) ? std::optional(Outcome::crowded) : std::nullopt;
}

Listeners::Outcome Listeners::accept(int listener, FileDescriptor& connection) {
    for (;;) {
        connection = FileDescriptor(::accept4(listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
        int const error = connection ? 0 : errno;
        if (!m_spare && !isExhaustion(error)) {
            m_spare = openSpare(); // another thread had taken it
        }
        if (connection) {
            return Outcome::connection;
        }
        switch (error) {
        case EAGAIN:
            return Outcome::none;
        case EMFILE:
        case ENFILE:
            if (auto const outcome = turnAway(listener)) {
                return *outcome;
            }
            continue;
        case ENOMEM:
        case ENOBUFS:
            errno = error; // looking for the spare one may have changed it
            return Outcome::trouble;
        default:
            continue; // the peer is gone already, or its network is: the next one
        }
    }
}

} // namespace Vellum::IPC
