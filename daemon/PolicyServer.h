// The daemon's front for Postfix, and for any other mail server that speaks its policy delegation protocol.
//
//   PolicyServer server(answerer);
//   server.start({.listen = {ListenAddress::parse("unix:/run/vellum/policy")}});
//
// Threads: one accepts; the workers, as many as cores unless told otherwise, serve the connections, each its own, and
// call the answerer. None of them waits for a client: a request is answered in the thread that read it.
//
// A connection is never closed for saying nothing: a mail server keeps its connections, and finding one closed costs it
// a second. What ends a connection is its client, stop(), bytes that break the protocol (PolicyRequest.h; one line in
// the log, at most PolicyNotes::burst a minute), and the case of too many connections (PolicyAcceptor.h).
#pragma once

#include "daemon/ListeningSocket.h"
#include "daemon/PolicyAnswerer.h"
#include "foundation/Locks.h"

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace Vellum::Daemon {

struct PolicyServerOptions {
    std::vector<ListenAddress> listen{};          // at least one
    mode_t socketMode = 0666;                     // of Unix sockets: like TCP on the loopback, open to every local user
    unsigned int workers = 0;                     // threads at most; 0: one for each core
    std::size_t maxConnections = 10000;           // what lies between this and the limit of descriptors is for others
    std::chrono::milliseconds silentGrace{10000}; // see PolicyAcceptor.h
};

// What has been served since start().
struct PolicyServerFigures {
    std::size_t connections = 0; // open now
    std::uint64_t accepted = 0;
    std::uint64_t refused = 0; // too many connections
    std::uint64_t requests = 0;
    std::uint64_t protocolErrors = 0;
    std::uint64_t failedAnswers = 0; // answered DUNNO because the answerer failed
};

class PolicyServer {
  public:
    // The answerer is borrowed; it outlives the server.
    explicit PolicyServer(PolicyAnswerer& answerer);
    ~PolicyServer(); // stops
    PolicyServer(PolicyServer const&) = delete;
    PolicyServer& operator=(PolicyServer const&) = delete;

    // Listens and serves from now on. Throws Exception naming address and reason; then nothing is served. start()
    // and stop() are called by one thread at a time.
    void start(PolicyServerOptions const& options);
    // Stops listening, answers the requests that have arrived completely, closes all connections and waits for the
    // threads. Does nothing when it is not running. May be started again.
    void stop();

    // Thread-safe, both. Where it listens, in the order of the options, ports chosen by the kernel filled in; empty
    // when it does not run.
    std::vector<ListenAddress> addresses() const;
    // All zero when it does not run.
    PolicyServerFigures figures() const;

  private:
    struct Running;

    PolicyAnswerer& m_answerer;
    mutable Mutex m_mutex;
    std::unique_ptr<Running> m_running VELLUM_GUARDED_BY(m_mutex);
};

} // namespace Vellum::Daemon
