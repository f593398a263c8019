// One thread of a policy server, and the connections it serves.
#pragma once

#include "daemon/EpollSet.h"
#include "daemon/PolicyConnection.h"
#include "foundation/Locks.h"

#include <atomic>
#include <exception>
#include <memory>
#include <span>
#include <string>
#include <thread>
#include <unordered_map>

namespace Vellum::Daemon {

// Epoll, level-triggered: one system call to learn who has something to say, one for each to receive, then one for each
// to send. A connection that sends without end gets its turn like the others.
class PolicyWorker {
  public:
    using Clock = PolicyConnection::Clock;

    // Starts the thread, under that name (at most 15 characters). Answerer and notes are borrowed. Throws Exception,
    // and std::system_error when there is no thread to be had.
    PolicyWorker(PolicyAnswerer& answerer, PolicyNotes& notes, std::string const& name);
    // Answers what has arrived by now, closes all connections, and waits for the thread.
    ~PolicyWorker();
    PolicyWorker(PolicyWorker const&) = delete;
    PolicyWorker& operator=(PolicyWorker const&) = delete;

    // Serves the connection from now on. Throws Exception when that is not possible; the connection is closed then.
    // Thread-safe, like all that follow.
    void adopt(std::unique_ptr<PolicyConnection> connection);
    std::size_t connections() const { return m_count.load(std::memory_order_relaxed); }
    // Closes one connection that has been open since `before` or longer and had no request answered in all that time,
    // the oldest of them. Answers whether there was one.
    bool closeSilent(Clock::time_point before);

    std::uint64_t requests() const { return m_workplace.requests.value(); }
    std::uint64_t protocolErrors() const { return m_workplace.protocolErrors.value(); }
    std::uint64_t failedAnswers() const { return m_workplace.failedAnswers.value(); }

  private:
    void run();
    void lastRounds();
    std::size_t serveReady(int milliseconds);
    void serve(std::span<epoll_event const> ready);
    void receive(PolicyConnection& connection);
    void send(PolicyConnection& connection);
    void giveUp(PolicyConnection& connection, std::exception const& problem);
    void drop(PolicyConnection& connection);

    PolicyConnection::Workplace m_workplace; // the thread's own, but for its counters
    std::atomic<bool> m_ending{false};
    EpollSet m_ready; // woken once m_ending
    std::atomic<std::size_t> m_count{0};

    Mutex m_mutex; // held for a few instructions, and while a socket is closed
    std::unordered_map<PolicyConnection const*, std::unique_ptr<PolicyConnection>>
        m_connections VELLUM_GUARDED_BY(m_mutex);

    std::thread m_thread; // last: it uses everything above
};

} // namespace Vellum::Daemon
