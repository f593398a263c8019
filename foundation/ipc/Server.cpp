#include "foundation/ipc/Server.h"

#include "foundation/Exception.h"
#include "foundation/Logger.h"
#include "foundation/OperationTally.h"
#include "foundation/ServiceThread.h"
#include "foundation/ipc/Address.h"

#include <cerrno>
#include <optional>
#include <sys/eventfd.h>
#include <system_error>

namespace Vellum::IPC {
namespace {

constexpr int acceptsAtOnce = 64;
constexpr int requestsAtOnce = 64; // then other connections have their turn
constexpr int discardsAtOnce = 64;
constexpr unsigned int notesAtOnce = 20;
constexpr std::chrono::seconds noteInterval{60};
constexpr std::chrono::milliseconds farewell{1'000};
constexpr std::chrono::milliseconds breath{10};

FileDescriptor makeWakeEvent() {
    FileDescriptor event(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!event) {
        throw std::system_error(errno, std::generic_category(), "eventfd");
    }
    return event;
}

} // namespace

struct Server::Client {
    enum class Phase { reading, working, sending, leaving };

    explicit Client(std::unique_ptr<ServerConnection> made) : connection(*made), ipc(std::move(made)) {}

    int descriptor() const { return connection.descriptor(); }

    ServerConnection& connection; // what ipc owns
    SocketIPC ipc;
    Phase phase = Phase::reading;
    bool taskFailed = false; // written by the thread that runs the task
};

Server::Server(Dispatcher const& handlers, DispatcherOptions const& options, unsigned int port)
    : m_handlers(handlers), m_options(options), m_shares(m_options), m_listeners(m_options.addresses, port),
      m_doorkeeper(m_options.allowedUsers, m_listeners.port()), m_wake(makeWakeEvent()),
      m_notes(notesAtOnce, noteInterval), m_workers("ipc-worker", m_options.workers) {
    m_poller.watch(m_wake.get(), EPOLLIN);
    for (FileDescriptor const& listener : m_listeners.sockets()) {
        m_poller.watch(listener.get(), EPOLLIN);
    }
    m_loop = startServiceThread("ipc-loop", [this] { run(); });
}

Server::~Server() {
    m_stopping.store(true);
    wake();
    m_loop.join();
    for (auto const& [descriptor, client] : m_clients) {
        if (client->phase == Client::Phase::working) {
            client->connection.abort();
        }
    }
    m_workers.stop();
}

void Server::wake() {
    std::uint64_t const one = 1;
    // Fails only when it is signalled already.
    [[maybe_unused]] ssize_t const written = ::write(m_wake.get(), &one, sizeof one);
}

void Server::run() {
    while (!m_stopping.load()) {
        for (epoll_event const& event : m_poller.wait(!m_ready.empty())) {
            onEvent(event.data.fd);
        }
        for (int const descriptor : std::exchange(m_ready, {})) {
            guard(descriptor, [this](Client& client) {
                if (client.phase == Client::Phase::reading) {
                    serve(client);
                }
            });
        }
        while (auto const descriptor = m_poller.nextExpired()) {
            guard(*descriptor, [this](Client& client) { onDeadline(client); });
        }
    }
}

template <class Step>
void Server::guard(int descriptor, Step step) {
    auto const found = m_clients.find(descriptor);
    if (found == m_clients.end()) {
        return; // dropped earlier in this round
    }
    try {
        step(*found->second);
        return;
    } catch (std::exception const& failed) {
        note("a client was cut off: " + std::string(failed.what()));
    } catch (...) {
        note("a client was cut off for something that is no exception");
    }
    auto const broken = m_clients.find(descriptor);
    if (broken != m_clients.end()) {
        drop(*broken->second);
    }
}

void Server::onEvent(int descriptor) {
    if (descriptor == m_wake.get()) {
        takeBack();
    } else if (m_listeners.contains(descriptor)) {
        try {
            acceptFrom(descriptor);
        } catch (std::exception const& failed) {
            note("a connection was turned away: " + std::string(failed.what()));
        }
    } else {
        guard(descriptor, [this](Client& client) { proceed(client); });
    }
}

void Server::acceptFrom(int listener) {
    for (int i = 0; i < acceptsAtOnce; ++i) {
        FileDescriptor socket;
        switch (m_listeners.accept(listener, socket)) {
        case Listeners::Outcome::connection:
            admit(std::move(socket));
            break;
        case Listeners::Outcome::none:
            return;
        case Listeners::Outcome::exhausted:
            note("a connection was turned away: no file descriptor is left for it");
            break;
        case Listeners::Outcome::crowded:
            note("a connection has to wait: no file descriptor is left for it");
            std::this_thread::sleep_for(breath);
            return;
        case Listeners::Outcome::trouble:
            note("cannot accept a connection: " + std::generic_category().message(errno));
            std::this_thread::sleep_for(breath);
            return;
        }
    }
}

void Server::admit(FileDescriptor socket) {
    std::optional<std::string> name = m_doorkeeper.admit(socket.get());
    if (!name) {
        return;
    }
    if (m_clients.size() >= m_options.maxConnections) {
        note("refused " + *name + ": " + std::to_string(m_clients.size()) + " connections are open already");
        return;
    }
    int const descriptor = socket.get();
    m_clients[descriptor] =
        std::make_unique<Client>(std::make_unique<ServerConnection>(std::move(socket), std::move(*name), m_shares));
    guard(descriptor, [this](Client& client) { proceed(client); }); // most have sent their request by now
}

// Goes on with a client as its phase says.
void Server::proceed(Client& client) {
    switch (client.phase) {
    case Client::Phase::reading:
        if (client.connection.frames().state() != FrameReader::State::complete) { // else its turn comes
            readMore(client);
        }
        break;
    case Client::Phase::working:
        break;
    case Client::Phase::sending:
        sendMore(client);
        break;
    case Client::Phase::leaving:
        throwAway(client);
        break;
    }
}

void Server::readMore(Client& client) {
    if (client.connection.read() == ServerConnection::Input::failed) {
        settle(client);
    } else {
        serve(client);
    }
}

// Handles the requests that have arrived whole, until one takes the client elsewhere.
void Server::serve(Client& client) {
    for (int turn = 0; turn < requestsAtOnce; ++turn) {
        switch (client.connection.frames().state()) {
        case FrameReader::State::complete:
            m_poller.clearDeadline(client.descriptor());
            client.connection.frames().take(m_request);
            if (!handle(client)) {
                return;
            }
            break;
        case FrameReader::State::oversized:
            leave(client, "sent a frame of " + std::to_string(client.connection.frames().announced()) +
                              " bytes, more than " + std::to_string(m_options.maxFrameBytes));
            return;
        case FrameReader::State::partial:
        case FrameReader::State::empty:
            awaitInput(client);
            return;
        }
    }
    m_ready.push_back(client.descriptor());
}

// Answers m_request. True when the client's next request may be handled at once.
bool Server::handle(Client& client) {
    if (m_request.is(PduType::endOfListing)) {
        return true; // a stop that was sent before the end of the listing had arrived
    }
    Handler const handler = m_handlers.handler(m_request.type());
    if (handler.isNull()) {
        leave(client, "sent a request of unknown type " + std::to_string(m_request.type()));
        return false;
    }
    if (handler->mayTakeLong()) {
        handOver(client, handler);
        return false;
    }
    client.taskFailed = !runTask(client, handler, m_request, false);
    return settle(client);
}

void Server::handOver(Client& client, Handler const& handler) {
    m_poller.watch(client.descriptor(), 0);
    client.phase = Client::Phase::working;
    try {
        m_workers.submit([this, &client, handler, request = m_request] {
            client.taskFailed = !runTask(client, handler, request, true);
            client.connection.write(); // at once; the loop sends what is left
            {
                Synchronized const holding(m_doneLock);
                m_done.push_back(client.descriptor());
            }
            wake();
        });
    } catch (...) {
        client.phase = Client::Phase::reading;
        throw;
    }
}

// Runs on the loop's thread or on a worker's. False when the connection must not go on.
bool Server::runTask(Client& client, Handler const& handler, Pdu const& request, bool mayWait) {
    client.connection.beginTask(mayWait);
    TalliedOperation tallied(Operation::request, std::to_string(request.type()));
    std::string reason = "its task failed";
    bool goesOn = false;
    try {
        if (handler->task(client.ipc, request) == 0) {
            tallied.hasSucceeded();
            return true;
        }
        goesOn = handler->survivesFailure();
    } catch (std::exception const& failed) {
        reason = failed.what();
    } catch (...) {
        reason = "its task threw something that is no exception";
    }
    if (client.connection.failure().empty()) {
        note("request of type " + std::to_string(request.type()) + " of " + client.connection.name() + ": " + reason);
    }
    return goesOn;
}

void Server::takeBack() {
    std::uint64_t signals = 0;
    [[maybe_unused]] ssize_t const read = ::read(m_wake.get(), &signals, sizeof signals);
    std::vector<int> done;
    {
        Synchronized const holding(m_doneLock);
        done.swap(m_done);
    }
    for (int const descriptor : done) {
        guard(descriptor, [this](Client& client) {
            if (settle(client)) {
                serve(client);
            }
        });
    }
}

// After a task, or a failure of the connection. True when the client goes on and its next request may be handled.
bool Server::settle(Client& client) {
    ServerConnection& connection = client.connection;
    connection.write();
    if (!connection.failure().empty()) {
        if (!connection.peerLeft()) {
            note("client " + connection.name() + " cut off: " + connection.failure());
        }
        drop(client);
        return false;
    }
    if (connection.hasOutput()) {
        client.phase = Client::Phase::sending;
        m_poller.watch(client.descriptor(), EPOLLOUT);
        m_poller.setDeadline(client.descriptor(), m_options.drainTimeout);
        return false;
    }
    if (client.taskFailed) {
        leave(client, "");
        return false;
    }
    client.phase = Client::Phase::reading;
    return true;
}

void Server::awaitInput(Client& client) {
    bool const begun = client.connection.frames().state() == FrameReader::State::partial;
    if (client.connection.inputEnded()) {
        if (begun) {
            note("client " + client.connection.name() + " ended its connection within a request");
        }
        drop(client);
        return;
    }
    client.connection.rest();
    m_poller.watch(client.descriptor(), EPOLLIN);
    if (!begun) {
        m_poller.clearDeadline(client.descriptor());
    } else if (!m_poller.hasDeadline(client.descriptor())) {
        m_poller.setDeadline(client.descriptor(), m_options.frameTimeout);
    }
}

void Server::sendMore(Client& client) {
    bool const progress = client.connection.write() > 0;
    if (client.connection.failure().empty() && client.connection.hasOutput()) {
        if (progress) {
            m_poller.setDeadline(client.descriptor(), m_options.drainTimeout);
        }
        return;
    }
    m_poller.clearDeadline(client.descriptor());
    if (settle(client)) {
        serve(client);
    }
}

void Server::throwAway(Client& client) {
    for (int i = 0; i < discardsAtOnce; ++i) {
        switch (client.connection.discard()) {
        case ServerConnection::Input::some:
            break;
        case ServerConnection::Input::none:
            return;
        case ServerConnection::Input::ended:
        case ServerConnection::Input::failed:
            drop(client);
            return;
        }
    }
}

void Server::onDeadline(Client& client) {
    switch (client.phase) {
    case Client::Phase::reading:
        leave(client, "did not finish a request within " + std::to_string(m_options.frameTimeout.count()) + " ms");
        break;
    case Client::Phase::sending:
        if (client.connection.peerTookMore()) {
            m_poller.setDeadline(client.descriptor(), m_options.drainTimeout);
            break;
        }
        note("client " + client.connection.name() + " cut off: did not take its reply within " +
             std::to_string(m_options.drainTimeout.count()) + " ms");
        drop(client);
        break;
    case Client::Phase::leaving:
        drop(client);
        break;
    case Client::Phase::working:
        break;
    }
}

// Logs the reason, if there is one, and says goodbye.
void Server::leave(Client& client, std::string const& reason) {
    if (!reason.empty()) {
        note("client " + client.connection.name() + " cut off: " + reason);
    }
    client.phase = Client::Phase::leaving;
    client.connection.finishOutput();
    if (client.connection.inputEnded()) {
        drop(client);
        return;
    }
    m_poller.watch(client.descriptor(), EPOLLIN);
    m_poller.setDeadline(client.descriptor(), farewell);
}

void Server::drop(Client& client) {
    m_poller.forget(client.descriptor());
    m_clients.erase(client.descriptor());
}

void Server::note(std::string const& text) {
    m_notes.note(Logger::Severity::warning, "port " + std::to_string(port()) + ": " + text);
}

} // namespace Vellum::IPC
