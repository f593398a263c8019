#include "foundation/database/DatabaseDaemon.h"

#include "foundation/Exception.h"
#include "foundation/Locks.h"
#include "foundation/Logger.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <poll.h>
#include <string_view>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace Vellum::DatabaseDaemon {

namespace {

using Clock = std::chrono::steady_clock;

struct Contact {
    Mutex lock;
    std::string socketPath VELLUM_GUARDED_BY(lock)
    = defaultSocketPath;
    std::chrono::milliseconds timeout VELLUM_GUARDED_BY(lock)
    = std::chrono::seconds(60);
};

Contact& contact() {
    static Contact* const values = new Contact; // never destroyed: detached threads may still ask
    return *values;
}

Exception trouble(std::string const& what) {
    return Exception("dbdaemon_send_request", Exception::failure).stringParameter(what);
}

Exception systemTrouble(std::string const& what) {
    return trouble(what + ": " + std::strerror(errno));
}

// One conversation with the daemon, which ends at a given time.
class Conversation {
  public:
    Conversation(std::string const& path, std::chrono::milliseconds limit)
        : m_path(path), m_end(Clock::now() + limit), m_socket(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        if (m_socket < 0) {
            throw systemTrouble("no socket");
        }
        try {
            connectTo(path, limit);
        } catch (...) {
            close(m_socket);
            throw;
        }
    }
    ~Conversation() { close(m_socket); }
    Conversation(Conversation const&) = delete;
    Conversation& operator=(Conversation const&) = delete;

    void send(std::string_view bytes) {
        while (!bytes.empty()) {
            awaitReady(POLLOUT);
            ssize_t const sent = ::send(m_socket, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
            if (sent < 0 && errno != EINTR && errno != EAGAIN) {
                return; // a daemon that will not listen may have answered all the same: receiveAnswer() tells
            }
            bytes.remove_prefix(static_cast<std::size_t>(std::max<ssize_t>(sent, 0)));
        }
    }
    std::int32_t receiveNumber() {
        std::int32_t number = 0;
        receive(reinterpret_cast<char*>(&number), sizeof number);
        return number;
    }
    std::string receiveText() {
        std::int32_t const length = receiveNumber();
        if (length < 0 || length > static_cast<std::int32_t>(longestText)) {
            throw trouble("the daemon on " + m_path + " answers with " + std::to_string(length) + " bytes");
        }
        std::string text(static_cast<std::size_t>(length), '\0');
        receive(text.data(), text.size());
        return text;
    }

  private:
    void receive(char* bytes, std::size_t length) {
        for (std::size_t have = 0; have < length;) {
            awaitReady(POLLIN);
            ssize_t const got = recv(m_socket, bytes + have, length - have, MSG_DONTWAIT);
            if (got == 0) {
                throw trouble("the daemon on " + m_path + " hung up without an answer");
            }
            if (got < 0 && errno != EINTR && errno != EAGAIN) {
                throw systemTrouble("the daemon on " + m_path + " hung up");
            }
            have += static_cast<std::size_t>(std::max<ssize_t>(got, 0));
        }
    }
    void connectTo(std::string const& path, std::chrono::milliseconds limit) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        if (path.size() >= sizeof address.sun_path) {
            throw trouble("the socket path " + path + " is too long");
        }
        path.copy(address.sun_path, path.size());
        // A connect() to a daemon whose queue is full waits; this bounds it.
        timeval const wait{limit.count() / 1000, (limit.count() % 1000) * 1000};
        setsockopt(m_socket, SOL_SOCKET, SO_SNDTIMEO, &wait, sizeof wait);
        if (connect(m_socket, reinterpret_cast<sockaddr const*>(&address), sizeof address) != 0) {
            throw systemTrouble("no database daemon on " + path);
        }
    }
    void awaitReady(short events) {
        auto const left = std::chrono::ceil<std::chrono::milliseconds>(m_end - Clock::now()).count();
        pollfd waiting{m_socket, events, 0};
        int const ready = left <= 0 ? 0 : poll(&waiting, 1, static_cast<int>(left));
        if (ready == 0) {
            throw trouble("no answer in time from the daemon on " + m_path);
        }
        if (ready < 0 && errno != EINTR) {
            throw systemTrouble("poll");
        }
    }

    std::string const m_path;
    Clock::time_point const m_end;
    int m_socket;
};

std::int32_t numberAt(char const* bytes) {
    std::int32_t number = 0;
    std::memcpy(&number, bytes, sizeof number);
    return number;
}

Answer ask(std::string_view request) {
    Conversation daemon(socketPath(), timeout());
    daemon.send(request);
    return static_cast<Answer>(daemon.receiveNumber());
}

} // namespace

char const* text(Answer answer) {
    switch (answer) {
    case Answer::accepted:
        return "accepted";
    case Answer::unreachable:
        return "the daemon cannot be reached";
    case Answer::malformed:
        return "the request is malformed";
    case Answer::unknownCode:
        return "the request code is unknown";
    case Answer::scriptUnreadable:
        return "the script is not a readable file of a user who may ask";
    case Answer::journalFailed:
        return "the script could not be kept in the journal";
    case Answer::notAllowed:
        return "this user may not ask";
    case Answer::notSettled:
        return "scripts that were accepted are not done yet";
    }
    return "an unknown answer";
}

void setSocketPath(std::string const& path) {
    Synchronized const held(contact().lock);
    contact().socketPath = path;
}

std::string socketPath() {
    Synchronized const held(contact().lock);
    return contact().socketPath;
}

void setTimeout(std::chrono::milliseconds limit) {
    Synchronized const held(contact().lock);
    contact().timeout = limit;
}

std::chrono::milliseconds timeout() {
    Synchronized const held(contact().lock);
    return contact().timeout;
}

Buffer request(RequestCode code, std::string const& path) {
    auto const number = static_cast<std::int32_t>(code);
    auto const length = static_cast<std::int32_t>(path.size() + 1);
    Buffer bytes(static_cast<int>(headerSize) + length, 0); // zero-filled: the path's NUL is there
    std::memcpy(bytes.data(), &number, sizeof number);
    std::memcpy(bytes.data() + sizeof number, &length, sizeof length);
    path.copy(bytes.data() + headerSize, path.size());
    return bytes;
}

Answer askWhetherSettled() {
    try {
        Buffer const question = request(RequestCode::isSettled, "/");
        return ask(question.view());
    } catch (std::exception const&) {
        return Answer::unreachable;
    }
}

Answer askForOutcomes(ScriptOutcomes& outcomes) {
    try {
        Buffer const question = request(RequestCode::outcomes, "/");
        Conversation daemon(socketPath(), timeout());
        daemon.send(question.view());
        auto const answer = static_cast<Answer>(daemon.receiveNumber());
        if (answer == Answer::accepted) {
            outcomes = parseScriptOutcomes(daemon.receiveText());
        }
        return answer;
    } catch (std::exception const&) {
        return Answer::unreachable;
    }
}

int requestScript(RequestCode code, std::string const& path) {
    return dbdaemon_send_request(request(code, path).data());
}

} // namespace Vellum::DatabaseDaemon

int dbdaemon_send_request(void* request) {
    using namespace Vellum::DatabaseDaemon;
    auto const* const bytes = static_cast<char const*>(request);
    std::string problem;
    Answer answer = Answer::malformed;
    std::string_view path;
    try {
        std::int32_t const length = bytes == nullptr ? 0 : numberAt(bytes + sizeof(std::int32_t));
        if (length < 2 || length > static_cast<std::int32_t>(longestPath) || bytes[headerSize + length - 1] != '\0') {
            problem = text(answer);
        } else {
            path = {bytes + headerSize, static_cast<std::size_t>(length) - 1};
            answer = ask({bytes, headerSize + static_cast<std::size_t>(length)});
            problem = text(answer);
        }
    } catch (Vellum::Exception const& exception) {
        answer = Answer::unreachable;
        problem = exception.asString();
    } catch (std::exception const& exception) {
        answer = Answer::unreachable;
        problem = exception.what();
    }
    if (answer != Answer::accepted) {
        Vellum::Logger::instance(false).note(Vellum::Logger::Severity::error,
                                             "the database daemon did not accept the script \"" + std::string(path) +
                                                 "\": " + problem);
    }
    return static_cast<int>(answer);
}
