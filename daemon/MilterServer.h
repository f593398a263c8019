// The daemon's front for mail servers that speak the milter protocol (version 6), by way of the milter library.
//
//   MilterServer server(front);
//   server.start({.listen = ListenAddress::parse("unix:/run/vellum/milter.sock")});
//
// Threads: the library's own, one that accepts and a crew that serves. The library can listen at one address, and once
// in the life of a process: start() after stop() throws. It also waits for signals in a thread of its own, see
// SignalInbox.h.
//
// The mail server is asked for macros: i (queue identifier), {auth_authen} (who has logged in), {rcpt_mailer} and
// {rcpt_host} (at a recipient that it refuses itself: "error" and the enhanced status code).
//
// An error here stops no mail: whatever fails is logged (at most `burst` lines a minute), and the mail server goes on.
#pragma once

#include "daemon/ListeningSocket.h"
#include "daemon/MilterSession.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <sys/types.h>
#include <thread>

namespace Vellum::Daemon {

struct MilterServerOptions {
    ListenAddress listen{};
    mode_t socketMode = 0666;
    std::size_t maxConnections = 2000;  // one more is let through unseen
    std::chrono::seconds timeout{1800}; // for the mail server to say the next thing
    // Called once, on a thread of the front, when it ends without stop(): the library got a signal that was meant for
    // the process, or has given up: it could accept no connection for two minutes. Nothing but a new process serves
    // mail servers again then, and frees the descriptors that ran out: connections that have said nothing yet are the
    // library's own, `maxConnections` does not know them.
    std::function<void()> hasEnded = {};
};

// What has been served since start().
struct MilterServerFigures {
    std::size_t connections = 0; // open now
    std::uint64_t accepted = 0;
    std::uint64_t unseen = 0; // let through: too many connections
    std::uint64_t failures = 0;
    bool running = false;
};

class MilterServer {
  public:
    static constexpr unsigned int burst = 10;

    // The front is borrowed; it outlives the server.
    explicit MilterServer(MilterFront& front);
    ~MilterServer(); // stops
    MilterServer(MilterServer const&) = delete;
    MilterServer& operator=(MilterServer const&) = delete;

    // Listens and serves from now on. Throws Exception naming the address and what is wrong.
    void start(MilterServerOptions const& options);
    // Ends; mail servers in the middle of a message find the connection closed and do as their settings say. Takes up
    // to five seconds, the library's interval of looking. Does nothing when it does not run.
    void stop();

    // Of the process's only one. Thread-safe; all zero before the start.
    static MilterServerFigures figures();

  private:
    MilterFront& m_front;
    std::thread m_thread;
};

} // namespace Vellum::Daemon
