// The running half of a dispatcher: the loop that serves its connections.
//
// A connection is always in one of four phases:
//
//   reading   the loop waits for requests and runs the short ones       deadline: the frame that has begun
//   working   a worker owns the connection; the loop does not watch it  deadline: none
//   sending   a reply is complete and not all taken by the kernel yet   deadline: the peer takes something
//   leaving   nothing more is said; what the peer still sends is thrown away, so that it can read our last words
//             instead of finding the connection reset                   deadline: a second
//
// No request is read while output is pending, so a client that sends requests and reads no reply holds nothing but its
// own output bound.
//
// Threads: everything but what m_doneLock guards belongs to the loop's thread.
#pragma once

#include "foundation/FileDescriptor.h"
#include "foundation/Locks.h"
#include "foundation/NoteLimiter.h"
#include "foundation/ipc/Dispatcher.h"
#include "foundation/ipc/Doorkeeper.h"
#include "foundation/ipc/Listeners.h"
#include "foundation/ipc/Poller.h"
#include "foundation/ipc/ServerConnection.h"
#include "foundation/ipc/Workers.h"

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

namespace Vellum::IPC {

class Server {
  public:
    // Listens on `port` and serves from now on. `handlers` outlives the server. Throws Exception.
    Server(Dispatcher const& handlers, DispatcherOptions const& options, unsigned int port);
    // Ends all connections; waits for the tasks that run.
    ~Server();
    Server(Server const&) = delete;
    Server& operator=(Server const&) = delete;

    unsigned int port() const { return m_listeners.port(); }

  private:
    struct Client;

    void run();
    // Runs a step for the client with that descriptor, if there still is one. Whatever it throws ends that client only.
    template <class Step>
    void guard(int descriptor, Step step);
    void onEvent(int descriptor);
    void acceptFrom(int listener);
    void admit(FileDescriptor socket);
    void takeBack();

    void proceed(Client& client);
    void readMore(Client& client);
    void serve(Client& client);
    bool handle(Client& client);
    void handOver(Client& client, Handler const& handler);
    bool runTask(Client& client, Handler const& handler, Pdu const& request, bool mayWait);
    bool settle(Client& client);
    void awaitInput(Client& client);
    void sendMore(Client& client);
    void throwAway(Client& client);
    void onDeadline(Client& client);

    void leave(Client& client, std::string const& reason);
    void drop(Client& client);

    void note(std::string const& text);
    void wake();

    Dispatcher const& m_handlers;
    DispatcherOptions const m_options;
    ConnectionShares m_shares;
    Listeners m_listeners;
    Doorkeeper m_doorkeeper;
    Poller m_poller;
    FileDescriptor m_wake; // signalled when a worker is done, and to stop

    std::unordered_map<int, std::unique_ptr<Client>> m_clients; // by descriptor
    std::vector<int> m_ready;                                   // have complete requests left after their turn
    Pdu m_request{PduType::receiveBuffer, 1024};
    NoteLimiter m_notes;

    Mutex m_doneLock;
    std::vector<int> m_done VELLUM_GUARDED_BY(m_doneLock); // descriptors that workers hand back
    std::atomic<bool> m_stopping{false};
    Workers m_workers;
    std::thread m_loop;
};

} // namespace Vellum::IPC
