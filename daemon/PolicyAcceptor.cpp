#include "daemon/PolicyAcceptor.h"

#include "foundation/ServiceThread.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <netinet/in.h>
#include <new>
#include <poll.h>
#include <string_view>
#include <sys/socket.h>
#include <system_error>

namespace Vellum::Daemon {
namespace {

constexpr std::string_view roomAgain = "policy: there is room for new connections again";
constexpr int pauseMilliseconds = static_cast<int>(PolicyAcceptor::pauseTime.count());

// Null for a peer of a Unix socket.
SocketAddress peerAddress(sockaddr_storage const& storage) {
    ip_addr_t raw{};
    if (storage.ss_family == AF_INET) {
        auto const& v4 = reinterpret_cast<sockaddr_in const&>(storage);
        raw.family = 4;
        std::copy_n(reinterpret_cast<std::uint8_t const*>(&v4.sin_addr), sizeof v4.sin_addr, raw.bytes);
        return {IPAddress(raw), ntohs(v4.sin_port)};
    }
    if (storage.ss_family == AF_INET6) {
        auto const& v6 = reinterpret_cast<sockaddr_in6 const&>(storage);
        raw.family = 6;
        std::copy_n(reinterpret_cast<std::uint8_t const*>(&v6.sin6_addr), sizeof v6.sin6_addr, raw.bytes);
        return {IPAddress(raw), ntohs(v6.sin6_port)};
    }
    return {};
}

bool isExhaustion(int error) {
    return error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM;
}

bool nobodyWaits(ListeningSocket const& socket) {
    pollfd queue{socket.descriptor(), POLLIN, 0};
    return poll(&queue, 1, 0) == 0;
}

} // namespace

PolicyAcceptor::PolicyAcceptor(Sockets const& sockets, Workers const& workers, Limits limits)
    : m_sockets(sockets), m_workers(workers), m_limits(limits) {
    for (auto const& socket : m_sockets) {
        m_ready.add(socket->descriptor(), EPOLLIN, socket.get());
    }
    m_thread = startServiceThread("policy-accept", [this] { run(); });
}

PolicyAcceptor::~PolicyAcceptor() {
    m_ending.store(true);
    m_ready.wake();
    m_thread.join();
}

void PolicyAcceptor::run() {
    std::array<epoll_event, 16> memory;
    while (!m_ending.load()) {
        auto const ready = m_ready.wait(memory, isInTrouble() ? pauseMilliseconds : EpollSet::forEver);
        for (epoll_event const& event : ready) {
            acceptAll(*static_cast<ListeningSocket const*>(event.data.ptr));
        }
        if (ready.empty() && !m_ending.load()) { // nobody comes, yet the end of trouble is to be seen
            if (m_exhausted.lasts()) {
                acceptAll(*m_sockets.front());
            }
            if (m_full.lasts() && !isFull()) {
                m_full.ends(roomAgain);
            }
        }
    }
}

void PolicyAcceptor::acceptAll(ListeningSocket const& socket) {
    Next next = Next::goOn;
    try {
        while (next == Next::goOn && !m_ending.load()) {
            next = acceptOne(socket);
        }
    } catch (std::bad_alloc const&) {
        next = acceptFailed(socket, ENOMEM);
    }
    if (next == Next::pause) {
        m_ready.pause(pauseMilliseconds);
    }
}

PolicyAcceptor::Next PolicyAcceptor::acceptOne(ListeningSocket const& socket) {
    sockaddr_storage address{};
    socklen_t length = sizeof address;
    FileDescriptor taken(
        accept4(socket.descriptor(), reinterpret_cast<sockaddr*>(&address), &length, SOCK_NONBLOCK | SOCK_CLOEXEC));
    if (!taken) {
        return acceptFailed(socket, errno);
    }
    auto connection = std::make_unique<PolicyConnection>(std::move(taken), peerAddress(address));
    if (isFull() && !makeRoom()) {
        m_refused.increment();
        m_full.begins("policy: " + std::to_string(m_limits.maxConnections) +
                      " connections are open, the most allowed; closing new ones, the first from " +
                      connection->peer());
        return Next::goOn;
    }
    m_full.ends(roomAgain);
    handOut(std::move(connection));
    return Next::goOn;
}

PolicyAcceptor::Next PolicyAcceptor::acceptFailed(ListeningSocket const& socket, int error) {
    if (error == EAGAIN) { // also, there is a descriptor: the kernel looks for one first
        m_exhausted.ends("policy: accepting connections again");
        return Next::queueEmpty;
    }
    if (isExhaustion(error)) {
        // For a descriptor the kernel looks before it looks whether anybody waits; memory is missed by somebody.
        bool const isDescriptor = error == EMFILE || error == ENFILE;
        if (isDescriptor && nobodyWaits(socket)) {
            return Next::queueEmpty; // the last one got the last descriptor
        }
        m_exhausted.begins("policy: no new connections for the moment: " + std::generic_category().message(error));
        makeRoom();
        return Next::pause;
    }
    // Others concern the one connection that could not be had, gone before it was accepted.
    if (error != ECONNABORTED && error != EINTR) {
        m_failures.note(Logger::Severity::warning, "policy: accepting on " + socket.address().asString() +
                                                       " failed: " + std::generic_category().message(error));
        return Next::pause;
    }
    return Next::goOn;
}

void PolicyAcceptor::handOut(std::unique_ptr<PolicyConnection> connection) {
    try {
        workerForNext().adopt(std::move(connection));
        m_accepted.increment();
    } catch (std::exception const& e) {
        m_refused.increment();
        m_failures.note(Logger::Severity::error, std::string("policy: a new connection had to be closed: ") + e.what());
    }
}

PolicyWorker& PolicyAcceptor::workerForNext() const {
    auto const withRoom = std::find_if(m_workers.begin(), m_workers.end(),
                                       [](auto const& worker) { return worker->connections() < connectionsTogether; });
    if (withRoom != m_workers.end()) {
        return **withRoom;
    }
    auto const fewer = [](auto const& one, auto const& other) {
        return one->connections() < other->connections();
    };
    return **std::min_element(m_workers.begin(), m_workers.end(), fewer);
}

bool PolicyAcceptor::isInTrouble() const {
    return m_exhausted.lasts() || m_full.lasts();
}

bool PolicyAcceptor::isFull() const {
    std::size_t open = 0;
    for (auto const& worker : m_workers) {
        open += worker->connections();
    }
    return open >= m_limits.maxConnections;
}

bool PolicyAcceptor::makeRoom() {
    auto const before = PolicyWorker::Clock::now() - m_limits.silentGrace;
    return std::any_of(m_workers.begin(), m_workers.end(),
                       [before](auto const& worker) { return worker->closeSilent(before); });
}

} // namespace Vellum::Daemon
