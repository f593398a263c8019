// One mail server's connection: bytes in, answers out.
//
// Requests are read with one system call for all that is there, answered in order, and the answers sent with one. A
// client that does not take its answers is not read from any more until it does; so a connection never holds more than
// one unfinished request, one reading of further ones, and one piece of answers.
//
// Receiving and sending are two steps, so that a thread can receive from all connections that are ready before it sends
// to the first. Waking a client is the dearest part of an answer; one that waits on many connections (a proxy, a load
// test) is then woken once for all of them.
//
// Used by the one thread that serves it; wasServed(), since() and shutDown() by any.
#pragma once

#include "daemon/PolicyAnswerer.h"
#include "foundation/FileDescriptor.h"
#include "foundation/NoteLimiter.h"
#include "foundation/SocketAddress.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Vellum::Daemon {

// What has been served so far. Written by one thread, read by any: increments need no locked instruction.
class PolicyCounter {
  public:
    void increment() { m_count.store(m_count.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed); }
    std::uint64_t value() const { return m_count.load(std::memory_order_relaxed); }

  private:
    std::atomic<std::uint64_t> m_count{0};
};

// The complaints of one server, each kind limited.
struct PolicyNotes {
    static constexpr unsigned int burst = 10;
    static constexpr std::chrono::seconds interval{60};

    NoteLimiter brokenProtocol{burst, interval};
    NoteLimiter failedAnswer{burst, interval};
    NoteLimiter brokenConnection{burst, interval};
};

class PolicyConnection {
  public:
    using Clock = std::chrono::steady_clock;

    // What the connection waits for: to be read from, to be written to, or nothing any more.
    enum class Wants { input, outputSpace, closing };

    // What the connections that one thread serves have in common.
    struct Workplace {
        static constexpr std::size_t inputBytes = std::size_t{16} * 1024;

        Workplace(PolicyAnswerer& who, PolicyNotes& where) : answerer(who), notes(where) {}

        PolicyAnswerer& answerer; // borrowed
        PolicyNotes& notes;       // borrowed
        std::vector<char> input = std::vector<char>(inputBytes);
        PolicyCounter requests;
        PolicyCounter protocolErrors;
        PolicyCounter failedAnswers;
    };

    // `peer` is null for a Unix socket.
    PolicyConnection(FileDescriptor socket, SocketAddress const& peer) : m_socket(std::move(socket)), m_peer(peer) {}

    // Two steps, to be taken one after the other when the socket is ready for what wants() says. Neither ever waits.
    // The first reads and answers; throws std::bad_alloc.
    void receive(Workplace& workplace);
    // The second sends what the kernel takes, and goes on with requests that were received already when it took all.
    // Answers what the connection wants next.
    Wants send(Workplace& workplace);
    Wants wants() const { return m_wants; }
    // Gives it up: nothing more is received, the second step answers that it is closing.
    void giveUp() { m_wants = Wants::closing; }

    int socket() const { return m_socket.get(); }
    // "127.0.0.1:4711", or "process 815 of user 104".
    std::string peer() const;
    Clock::time_point since() const { return m_since; }
    // Whether any request has been answered.
    bool wasServed() const { return m_served.load(std::memory_order_relaxed); }
    // Ends it from another thread: to the serving thread the client seems gone.
    void shutDown();
    bool wasShutDown() const { return m_shutDown.load(std::memory_order_relaxed); }

  private:
    static constexpr std::size_t outputPiece = std::size_t{16} * 1024;

    void answerAll(std::string_view bytes, Workplace& workplace);
    void answerOne(Workplace& workplace);
    void keep(std::string_view bytes, std::size_t from);
    void sendOnce();
    void readFailed(Workplace& workplace);
    void endOfInput(Workplace& workplace);
    void brokenProtocol(std::string_view bytes, Workplace& workplace);

    FileDescriptor const m_socket;
    SocketAddress const m_peer;
    Clock::time_point const m_since = Clock::now();
    std::atomic<bool> m_served{false};
    std::atomic<bool> m_shutDown{false};
    Wants m_wants = Wants::input;
    PolicyRequestParser m_parser;
    std::string m_pending; // received, not answered yet
    std::string m_unsent;  // answers that the kernel has not got yet
    PolicyConnectionMemory m_memory;
};

} // namespace Vellum::Daemon
