#include "tools/vellumctl/DaemonConnection.h"

#include "foundation/Escape.h"
#include "foundation/Exception.h"
#include "foundation/ipc/Endpoint.h"
#include "tools/vellumctl/Failure.h"

#include <algorithm>
#include <unistd.h>
#include <utility>

namespace Vellum::Tools {
namespace {

constexpr std::chrono::milliseconds longestConnect{10'000}; // a loopback answers at once or never
constexpr unsigned int receiveCapacity = 1024;

// The system's reason at the end of the connection's own text, which names the place once more.
std::string reasonOf(Exception const& failed) {
    if (failed.stringParameters().empty()) {
        return failed.asString();
    }
    std::string const& text = failed.stringParameters().front();
    constexpr std::string_view separator = ": ";
    std::size_t const last = text.rfind(separator);
    return last == std::string::npos ? text : text.substr(last + separator.size());
}

std::string onPort(DaemonPlace const& place) {
    return std::string("on port ") + std::to_string(place.port) + (place.ipv6 ? " of ::1" : "");
}

} // namespace

DaemonConnection::DaemonConnection(DaemonPlace const& place)
    : m_place(place), m_unit(IPC::PduType::receiveBuffer, receiveCapacity) {
    IPC::Endpoint::map(IPC::stateDaemonPort, place.ipv6 ? "::1" : "127.0.0.1", place.port);
    IPC::ClientTimeouts timeouts;
    timeouts.connect = std::min(longestConnect, place.timeout);
    timeouts.send = timeouts.receive = place.timeout;
    m_socket.timeouts(timeouts);
    try {
        m_socket.connect(IPC::stateDaemonPort);
    } catch (Exception const& failed) {
        throw Failure(ExitCode::noDaemon, "no state daemon " + onPort(place) + ": " + reasonOf(failed));
    }
}

DaemonConnection::DaemonConnection(DaemonPlace const& place, std::unique_ptr<IPC::Socket> socket)
    : m_place(place), m_socket(std::move(socket)), m_unit(IPC::PduType::receiveBuffer, receiveCapacity) {}

void DaemonConnection::send(IPC::PduType type, std::string_view payload) {
    try {
        m_socket.send(type, payload.data(), payload.size());
    } catch (Exception const& failed) {
        broken(reasonOf(failed));
    }
}

IPC::Pdu const& DaemonConnection::receive() {
    try {
        m_socket >> m_unit;
    } catch (Exception const& failed) {
        broken(reasonOf(failed));
    }
    m_answered = true;
    return m_unit;
}

Json DaemonConnection::ask(IPC::PduType request, Json const& content, Progress const& progress) {
    send(request, content.dump(-1, ' ', true, Json::error_handler_t::replace));
    for (;;) {
        IPC::Pdu const& unit = receive();
        bool const isProgress = unit.is(IPC::PduType::adminProgress);
        if (!isProgress && !unit.is(IPC::PduType::adminReply)) {
            unexpected(unit);
        }
        Json json = Json::parse(unit.data().view(), nullptr, false);
        if (!json.is_object()) {
            throw Failure(ExitCode::incomplete, "the daemon's answer is not the JSON that was expected");
        }
        if (!isProgress) {
            return json;
        }
        if (progress) {
            progress(json);
        }
    }
}

std::string errorIn(Json const& answer) {
    auto const found = answer.find("error");
    if (found == answer.end()) {
        return {};
    }
    return escapeForLog(found->is_string() ? found->get<std::string>() : found->dump());
}

void failOnError(Json const& answer) {
    if (std::string const error = errorIn(answer); !error.empty()) {
        throw Failure(ExitCode::failed, error);
    }
}

std::string prettyJson(Json const& answer) {
    return answer.dump(2, ' ', true, Json::error_handler_t::replace) + "\n";
}

void DaemonConnection::unexpected(IPC::Pdu const& unit) const {
    throw Failure(ExitCode::incomplete, "the daemon sent a unit of type " + std::to_string(unit.type()) + " with " +
                                            std::to_string(unit.data().length()) + " bytes, which has no place here");
}

void DaemonConnection::broken(std::string const& reason) {
    // A timeout leaves a connection on which nothing waits; an end is something that waits.
    bool const ended = m_socket.socket().dataWaiting();
    if (!m_answered && ended) {
        throw Failure(ExitCode::noDaemon, "the state daemon " + onPort(m_place) +
                                              " closed the connection without an answer: it may not serve user " +
                                              std::to_string(::getuid()) + ", its log says why (" + reason + ")");
    }
    throw Failure(ExitCode::incomplete, "the conversation with the state daemon broke: " + reason);
}

} // namespace Vellum::Tools
