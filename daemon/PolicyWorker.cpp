#include "daemon/PolicyWorker.h"

#include "foundation/ServiceThread.h"

#include <array>

namespace Vellum::Daemon {
namespace {

constexpr std::size_t eventsAtOnce = 64;

// Connections from which it receives before it sends to any. Below that, the first answer goes out before the second
// request is decided, so that the clients have something to do meanwhile.
constexpr std::size_t fewestTogether = 5;

std::uint32_t eventsFor(PolicyConnection::Wants wants) {
    return wants == PolicyConnection::Wants::outputSpace ? EPOLLOUT : EPOLLIN;
}

} // namespace

PolicyWorker::PolicyWorker(PolicyAnswerer& answerer, PolicyNotes& notes, std::string const& name)
    : m_workplace(answerer, notes) {
    m_thread = startServiceThread(name, [this] { run(); });
}

PolicyWorker::~PolicyWorker() {
    m_ending.store(true);
    m_ready.wake();
    m_thread.join();
}

void PolicyWorker::adopt(std::unique_ptr<PolicyConnection> connection) {
    PolicyConnection* const taken = connection.get();
    Synchronized const holding(m_mutex);
    m_connections.emplace(taken, std::move(connection));
    try {
        // Last: the thread may serve it, and close it, from here on; closing waits for the lock.
        m_ready.add(taken->socket(), eventsFor(taken->wants()), taken);
    } catch (...) {
        m_connections.erase(taken);
        throw;
    }
    m_count.store(m_connections.size(), std::memory_order_relaxed);
}

bool PolicyWorker::closeSilent(Clock::time_point before) {
    Synchronized const holding(m_mutex);
    PolicyConnection* oldest = nullptr;
    for (auto const& [key, connection] : m_connections) {
        bool const eligible = !connection->wasServed() && !connection->wasShutDown() && connection->since() <= before;
        if (eligible && (oldest == nullptr || connection->since() < oldest->since())) {
            oldest = connection.get();
        }
    }
    if (oldest != nullptr) {
        oldest->shutDown();
    }
    return oldest != nullptr;
}

void PolicyWorker::run() {
    while (!m_ending.load()) {
        serveReady(EpollSet::forEver);
    }
    lastRounds();
    Synchronized const holding(m_mutex);
    m_connections.clear();
    m_count.store(0, std::memory_order_relaxed);
}

// A request that had arrived by the time of the end gets its answer: a mail server that finds its connection closed
// instead waits a second before it asks again. Rounds are counted because clients may go on sending.
void PolicyWorker::lastRounds() {
    std::size_t const rounds = connections() / (eventsAtOnce - 1) + 1;
    for (std::size_t i = 0; i < rounds && serveReady(0) > 0; ++i) {
    }
}

std::size_t PolicyWorker::serveReady(int milliseconds) {
    std::array<epoll_event, eventsAtOnce> memory;
    auto const ready = m_ready.wait(memory, milliseconds);
    std::size_t const step = ready.size() < fewestTogether ? 1 : ready.size();
    for (auto rest = ready; !rest.empty(); rest = rest.subspan(step)) {
        serve(rest.first(step));
    }
    return ready.size();
}

void PolicyWorker::serve(std::span<epoll_event const> ready) {
    for (epoll_event const& event : ready) {
        receive(*static_cast<PolicyConnection*>(event.data.ptr));
    }
    for (epoll_event const& event : ready) {
        send(*static_cast<PolicyConnection*>(event.data.ptr));
    }
}

void PolicyWorker::receive(PolicyConnection& connection) {
    try {
        connection.receive(m_workplace);
    } catch (std::exception const& e) {
        giveUp(connection, e);
    }
}

void PolicyWorker::send(PolicyConnection& connection) {
    PolicyConnection::Wants const before = connection.wants();
    try {
        PolicyConnection::Wants const wants = connection.send(m_workplace);
        if (wants != before && wants != PolicyConnection::Wants::closing) {
            m_ready.change(connection.socket(), eventsFor(wants), &connection);
        }
    } catch (std::exception const& e) {
        giveUp(connection, e);
    }
    if (connection.wants() == PolicyConnection::Wants::closing) {
        drop(connection);
    }
}

// No memory for this connection, here or in the kernel: the others go on.
void PolicyWorker::giveUp(PolicyConnection& connection, std::exception const& problem) {
    connection.giveUp();
    m_workplace.notes.brokenConnection.note(Logger::Severity::error,
                                            std::string("policy: a connection had to be closed: ") + problem.what());
}

void PolicyWorker::drop(PolicyConnection& connection) {
    Synchronized const holding(m_mutex);
    m_connections.erase(&connection);
    m_count.store(m_connections.size(), std::memory_order_relaxed);
}

} // namespace Vellum::Daemon
