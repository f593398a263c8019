// The daemon's Unix socket: takes requests, hands them on, sends the answers.
#pragma once

#include "dbdaemon/ScriptRequest.h"
#include "foundation/FileDescriptor.h"
#include "foundation/UnixListener.h"
#include "foundation/database/DatabaseDaemon.h"

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <sys/types.h>
#include <thread>
#include <utility>
#include <vector>

namespace Vellum::DatabaseDaemon {

// One thread talks to all clients and waits for none of them: a client that sends nothing, nonsense or half a request
// loses its own connection, after its time or at once. A second thread answers the whole requests one after the other,
// because accepting one means copying a file and syncing a disk.
//
// The kernel says which user a client runs as; a user who may not ask is told so before a byte of his is read.
// A client gets one answer, then its connection is closed.
class RequestServer {
  public:
    struct Options {
        std::string socketPath;
        mode_t socketMode = 0660;
        std::set<uid_t> users;                          // who may ask, besides root and the daemon's own user
        std::chrono::milliseconds requestTimeout{5000}; // for a whole request, and for taking the answer
        std::size_t maxClients = 256; // beyond it, the client that has been sending for longest is dropped
    };
    struct Reply {
        Reply(Answer made) : answer(made) {}
        Reply(Answer made, std::string behind) : answer(made), text(std::move(behind)) {}
        Answer answer;
        std::optional<std::string> text{}; // behind it, its length first
    };
    using Answering = std::function<Reply(ScriptRequest const& request, uid_t user)>;

    // Listens and starts both threads; requests are answered by `answering`, which must not throw. A socket file that
    // nobody listens on is replaced; see UnixListener, which throws.
    RequestServer(Options options, Answering answering);
    // Ends both threads, after the request that is being answered, and removes the socket file.
    ~RequestServer();
    RequestServer(RequestServer const&) = delete;
    RequestServer& operator=(RequestServer const&) = delete;

    // Whether this user may ask: root, the daemon's own user, or one of options.users.
    bool mayAsk(uid_t user) const;

  private:
    using Clock = std::chrono::steady_clock;

    enum class Step { receiving, beingAnswered, sending };
    struct Client {
        FileDescriptor socket;
        uid_t user = 0;
        Step step = Step::receiving;
        Clock::time_point deadline; // of this step; being answered has none
        std::string bytes;          // received, or still to be sent
    };
    struct Question {
        std::uint64_t client;
        ScriptRequest request;
        uid_t user;
    };

    void talk();   // body of the first thread
    void answer(); // body of the second
    static short awaited(Step step);
    void serve(std::uint64_t id, short events);
    void takeClients();
    bool dropOldest();
    bool receive(std::uint64_t id, Client& client);
    bool reply(Client& client, Reply const& reply);
    bool send(Client& client);
    bool takeAnswers();
    void dropLateClients();
    int millisecondsToNextDeadline() const;
    void signal() const;

    Options const m_options;
    Answering const m_answering;
    UnixListener m_listening;
    FileDescriptor m_event; // readable when there are answers, or at the end

    // Of the first thread alone:
    std::map<std::uint64_t, Client> m_clients; // by number, so the oldest comes first
    std::uint64_t m_lastClient = 0;

    std::mutex m_mutex;
    std::condition_variable m_asked;
    // Under m_mutex:
    std::deque<Question> m_questions;
    std::vector<std::pair<std::uint64_t, Reply>> m_answers;
    bool m_stopping = false;

    std::thread m_answerer;
    std::thread m_talker;
};

} // namespace Vellum::DatabaseDaemon
