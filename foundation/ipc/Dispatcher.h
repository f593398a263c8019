// Takes requests from the clients of one port and gives each to the handler of its type.
//
// instance(29001) only names a dispatcher; handlers may be added at any time. Nothing is served until start().
//
// One thread accepts, reads the requests of all connections, and runs the handlers that do not take long. Those that
// may take long run on workers, so neither many slow listings nor a stuck client delays a short request. A connection's
// next request waits until the reply to the last one is sent. A connection that says nothing is kept.
//
// Who is served: root, the user this process runs as, and `allowedUsers`. The kernel is asked who owns the peer's end
// of the connection; a stranger, or a peer of which the kernel cannot tell, is cut off before a byte of it is read.
//
// What ends one connection, with one (rate-limited) warning in the log and no effect on any other: a frame above
// maxFrameBytes, one not finished within frameTimeout, a type without a handler, a handler that throws or answers -1
// (unless it says that it survives that), a client that does not take its replies. What was sent before is still
// delivered.
//
// A client that leaves ends the listing it asked for; one that only shuts down its sending side still gets its replies.
// A request whose client has left before it was handled is handled all the same, if the kernel still knew whose it was.
#pragma once

#include "foundation/ipc/Handler.h"

#include <chrono>
#include <cstddef>
#include <memory>
#include <set>
#include <string>
#include <sys/types.h>
#include <vector>

namespace Vellum::IPC {

struct DispatcherOptions {
    static constexpr int registryNumber = -1;

    std::vector<std::string> addresses{"127.0.0.1"}; // numeric, IPv4 or IPv6; {"127.0.0.1", "::1"} for both loopbacks
    int port = registryNumber;    // registryNumber: the dispatcher's own number; 0: the kernel chooses
    std::set<uid_t> allowedUsers; // besides root and the process's own user

    std::size_t maxConnections = 2000;                        // one more is closed at once
    std::size_t maxFrameBytes = (1U << 20) + Pdu::headerSize; // header included: a payload of 1 MiB
    std::chrono::milliseconds frameTimeout{10'000};           // from a frame's first byte to its last
    std::size_t inputBudget = 64U << 20;                      // all connections together, beyond 16 KiB each

    unsigned int workers = 64;                      // threads at most for tasks that may take long; made when needed
    std::size_t outputBound = 4U << 20;             // one connection's output that the kernel has not taken yet
    std::size_t outputBudget = 64U << 20;           // all connections together, beyond 64 KiB each
    std::chrono::milliseconds stallTimeout{1'000};  // a client at the bound that takes nothing for so long is dropped,
    std::chrono::milliseconds waitTimeout{10'000};  // and so is one for whom a single task has waited so long in all
    std::chrono::milliseconds drainTimeout{60'000}; // as stallTimeout, for a reply whose task is done: nothing is held
};

class Server;

class Dispatcher {
  public:
    // The process's dispatcher of that number; made on the first call, never destroyed. Thread-safe.
    static Dispatcher& instance(int port);
    explicit Dispatcher(int port);
    ~Dispatcher(); // stops
    Dispatcher(Dispatcher const&) = delete;
    Dispatcher& operator=(Dispatcher const&) = delete;

    // Registers a handler; one that was added before for the same type is replaced. Throws Exception for an empty
    // handle. Thread-safe.
    void add(Handler const& handler);
    // The handler of a request type; an empty handle when there is none. Thread-safe.
    Handler handler(unsigned int type) const;

    // Listens and serves from now on. Throws Exception naming address, port and reason; then nothing is served.
    // start() and stop() are called by one thread at a time, never by a handler.
    void start(DispatcherOptions const& options = {});
    // Where it listens; 0 when it does not.
    unsigned int boundPort() const;
    // Ends all connections and waits for the tasks that still run; those that wait for a client or send to one fail at
    // once. May be started again.
    void stop();

  private:
    struct Registry;
    std::unique_ptr<Registry> m_registry;
    std::unique_ptr<Server> m_server;
    int m_number;
};

// Registers a new T with the state daemon's dispatcher.
template <class T>
void addHandler() {
    Dispatcher::instance(stateDaemonPort).add(MyHandler<T>());
}

} // namespace Vellum::IPC
