// Takes new connections of a policy server and hands them to its workers.
//
// A worker gets connectionsTogether before the next one gets any, and what is beyond is shared evenly: one thread that
// finds several requests when it wakes up answers them sooner, and with less work, than several threads woken for one
// request each.
//
// Trouble is said once, not once for each connection. Out of descriptors or memory: accepting pauses for pauseTime at a
// time, clients wait in the kernel's queue meanwhile. At the maximum of connections: a new one is closed at once,
// unless another has been open for silentGrace without asking anything: then that one goes. So a stranger who opens
// connections and says nothing does not keep the mail server out.
#pragma once

#include "daemon/EpollSet.h"
#include "daemon/ListeningSocket.h"
#include "daemon/OngoingTrouble.h"
#include "daemon/PolicyWorker.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <thread>
#include <vector>

namespace Vellum::Daemon {

class PolicyAcceptor {
  public:
    using Sockets = std::vector<std::unique_ptr<ListeningSocket>>;
    using Workers = std::vector<std::unique_ptr<PolicyWorker>>;

    static constexpr std::size_t connectionsTogether = 8;
    static constexpr std::chrono::milliseconds pauseTime{100};
    static constexpr std::chrono::seconds quietTime{60}; // trouble coming back sooner is not mentioned again

    struct Limits {
        std::size_t maxConnections;
        std::chrono::milliseconds silentGrace;
    };

    // Starts the thread. Sockets and workers are borrowed and stay as they are. Throws as PolicyWorker does.
    PolicyAcceptor(Sockets const& sockets, Workers const& workers, Limits limits);
    // Waits for the thread. The sockets stay open.
    ~PolicyAcceptor();
    PolicyAcceptor(PolicyAcceptor const&) = delete;
    PolicyAcceptor& operator=(PolicyAcceptor const&) = delete;

    std::uint64_t accepted() const { return m_accepted.value(); }
    std::uint64_t refused() const { return m_refused.value(); }

  private:
    enum class Next { goOn, queueEmpty, pause };

    void run();
    void acceptAll(ListeningSocket const& socket);
    Next acceptOne(ListeningSocket const& socket);
    Next acceptFailed(ListeningSocket const& socket, int error);
    void handOut(std::unique_ptr<PolicyConnection> connection);
    PolicyWorker& workerForNext() const;
    bool isInTrouble() const;
    bool isFull() const;
    bool makeRoom();

    Sockets const& m_sockets;
    Workers const& m_workers;
    Limits const m_limits;
    OngoingTrouble m_exhausted{quietTime};
    OngoingTrouble m_full{quietTime};
    NoteLimiter m_failures{PolicyNotes::burst, PolicyNotes::interval};
    PolicyCounter m_accepted;
    PolicyCounter m_refused;

    std::atomic<bool> m_ending{false};
    EpollSet m_ready;     // woken once m_ending
    std::thread m_thread; // last: it uses everything above
};

} // namespace Vellum::Daemon
