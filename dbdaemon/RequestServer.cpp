#include "dbdaemon/RequestServer.h"

#include "foundation/Exception.h"
#include "foundation/Locks.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

namespace Vellum::DatabaseDaemon {

namespace {

constexpr std::size_t longestRequest = headerSize + longestPath;

bool wouldBlock() {
    return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR;
}

// The user that the kernel remembers for the other end; nobody when it does not tell.
uid_t peerOf(int socket) {
    ucred peer{};
    socklen_t length = sizeof peer;
    return getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &peer, &length) == 0 ? peer.uid : static_cast<uid_t>(-1);
}

} // namespace

RequestServer::RequestServer(Options options, Answering answering)
    : m_options(std::move(options)), m_answering(std::move(answering)),
      m_listening(m_options.socketPath, m_options.socketMode), m_event(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {
    if (!m_event) {
        throw Exception("RequestServer", Exception::failure).stringParameter(std::strerror(errno));
    }
    m_answerer = std::thread([this] { answer(); });
    m_talker = std::thread([this] { talk(); });
}

RequestServer::~RequestServer() {
    {
        std::lock_guard<std::mutex> const held(m_mutex);
        m_stopping = true;
        m_asked.notify_all();
    }
    // The answer in the making still reaches its client: the talker goes last.
    m_answerer.join();
    signal();
    m_talker.join();
}

bool RequestServer::mayAsk(uid_t user) const {
    return user == 0 || user == geteuid() || m_options.users.count(user) != 0;
}

void RequestServer::signal() const {
    std::uint64_t const one = 1;
    [[maybe_unused]] ssize_t const ignored = write(m_event.get(), &one, sizeof one); // full is signalled, too
}

void RequestServer::answer() {
    std::unique_lock<std::mutex> held(m_mutex);
    for (;;) {
        m_asked.wait(held, [this] { return m_stopping || !m_questions.empty(); });
        if (m_stopping) {
            return;
        }
        Question const question = std::move(m_questions.front());
        m_questions.pop_front();
        held.unlock();
        Reply answer = m_answering(question.request, question.user);
        held.lock();
        m_answers.emplace_back(question.client, std::move(answer));
        signal();
    }
}

short RequestServer::awaited(Step step) {
    switch (step) {
    case Step::receiving:
        return POLLIN;
    case Step::sending:
        return POLLOUT;
    case Step::beingAnswered:
        break;
    }
    return 0; // only that the client is gone
}

void RequestServer::talk() {
    std::vector<pollfd> watched;
    std::vector<std::uint64_t> ids;
    for (bool stopping = false; !stopping;) {
        watched.assign({{m_listening.descriptor(), POLLIN, 0}, {m_event.get(), POLLIN, 0}});
        ids.clear();
        for (auto const& [id, client] : m_clients) {
            watched.push_back({client.socket.get(), awaited(client.step), 0});
            ids.push_back(id);
        }
        poll(watched.data(), watched.size(), millisecondsToNextDeadline());
        for (std::size_t i = 0; i < ids.size(); ++i) {
            serve(ids[i], watched[i + 2].revents);
        }
        if ((watched[1].revents & POLLIN) != 0) {
            stopping = takeAnswers();
        }
        if ((watched[0].revents & POLLIN) != 0) {
            takeClients();
        }
        dropLateClients();
    }
}

void RequestServer::serve(std::uint64_t id, short events) {
    auto const found = m_clients.find(id);
    if (found == m_clients.end() || events == 0) {
        return;
    }
    Client& client = found->second;
    bool const keeps = client.step == Step::receiving ? receive(id, client)
                       : client.step == Step::sending ? send(client)
                                                      : false; // gone before its answer; the request stands
    if (!keeps) {
        m_clients.erase(found);
    }
}

void RequestServer::takeClients() {
    for (;;) {
        FileDescriptor socket(accept4(m_listening.descriptor(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
        if (!socket) {
            bool const exhausted = errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM;
            if (exhausted && !dropOldest()) {
                sleepFor(0, 100); // nothing here to give up: others use them, and nobody waits for an answer
            }
            return;
        }
        Client client;
        client.user = peerOf(socket.get());
        client.socket = std::move(socket);
        client.deadline = Clock::now() + m_options.requestTimeout;
        if (!mayAsk(client.user)) {
            reply(client, Answer::notAllowed);
            continue; // told, and closed
        }
        if (m_clients.size() >= m_options.maxClients) {
            dropOldest();
        }
        m_clients.emplace(++m_lastClient, std::move(client));
    }
}

// Whoever has been sending for longest goes first; one that is being answered only goes without its answer. False when
// there is nobody.
bool RequestServer::dropOldest() {
    auto const receiving = [](auto const& entry) {
        return entry.second.step == Step::receiving;
    };
    auto const oldest = std::find_if(m_clients.begin(), m_clients.end(), receiving);
    if (m_clients.empty()) {
        return false;
    }
    m_clients.erase(oldest == m_clients.end() ? m_clients.begin() : oldest);
    return true;
}

// True while the client stays.
bool RequestServer::receive(std::uint64_t id, Client& client) {
    char piece[longestRequest];
    ssize_t const got = recv(client.socket.get(), piece, sizeof piece - client.bytes.size(), 0);
    if (got <= 0) {
        return got < 0 && wouldBlock();
    }
    client.bytes.append(piece, static_cast<std::size_t>(got));
    ScriptRequest request;
    switch (readRequest(client.bytes, request)) {
    case Frame::incomplete:
        return true;
    case Frame::malformed:
        return reply(client, Answer::malformed);
    case Frame::whole:
        break;
    }
    client.step = Step::beingAnswered;
    client.bytes.clear();
    std::lock_guard<std::mutex> const held(m_mutex);
    m_questions.push_back({id, std::move(request), client.user});
    m_asked.notify_all();
    return true;
}

bool RequestServer::reply(Client& client, Reply const& reply) {
    auto const number = [&client](std::int32_t value) {
        client.bytes.append(reinterpret_cast<char const*>(&value), sizeof value);
    };
    client.bytes.clear();
    number(static_cast<std::int32_t>(reply.answer));
    if (reply.text) {
        number(static_cast<std::int32_t>(reply.text->size()));
        client.bytes += *reply.text;
    }
    client.step = Step::sending;
    client.deadline = Clock::now() + m_options.requestTimeout;
    return send(client);
}

// True while something is left to send.
bool RequestServer::send(Client& client) {
    ssize_t const sent = ::send(client.socket.get(), client.bytes.data(), client.bytes.size(), MSG_NOSIGNAL);
    if (sent < 0) {
        return wouldBlock();
    }
    client.bytes.erase(0, static_cast<std::size_t>(sent));
    return !client.bytes.empty();
}

// Sends what has been answered meanwhile; true at the end of the server's life.
bool RequestServer::takeAnswers() {
    std::uint64_t count = 0;
    [[maybe_unused]] ssize_t const ignored = read(m_event.get(), &count, sizeof count);
    std::vector<std::pair<std::uint64_t, Reply>> answers;
    bool stopping = false;
    {
        std::lock_guard<std::mutex> const held(m_mutex);
        answers.swap(m_answers);
        stopping = m_stopping;
    }
    for (auto const& [id, answer] : answers) {
        auto const found = m_clients.find(id);
        if (found != m_clients.end() && !reply(found->second, answer)) {
            m_clients.erase(found);
        }
    }
    return stopping;
}

void RequestServer::dropLateClients() {
    Clock::time_point const now = Clock::now();
    for (auto client = m_clients.begin(); client != m_clients.end();) {
        bool const late = client->second.step != Step::beingAnswered && client->second.deadline <= now;
        client = late ? m_clients.erase(client) : std::next(client);
    }
}

int RequestServer::millisecondsToNextDeadline() const {
    Clock::time_point next = Clock::time_point::max();
    for (auto const& [id, client] : m_clients) {
        if (client.step != Step::beingAnswered) {
            next = std::min(next, client.deadline);
        }
    }
    if (next == Clock::time_point::max()) {
        return -1;
    }
    auto const left = std::chrono::ceil<std::chrono::milliseconds>(next - Clock::now()).count();
    return static_cast<int>(std::max<decltype(left)>(left, 0));
}

} // namespace Vellum::DatabaseDaemon
