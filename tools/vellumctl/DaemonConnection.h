// A connection to the state daemon, whose failures are told in an administrator's words.
#pragma once

#include "foundation/ipc/Pdu.h"
#include "foundation/ipc/SocketIPC.h"

#include <nlohmann/json.hpp>

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

namespace Vellum::Tools {

using Json = nlohmann::json;

// Where the daemon listens, and how long it may say nothing.
struct DaemonPlace {
    unsigned int port = IPC::stateDaemonPort;
    bool ipv6 = false; // the loopback ::1 instead of 127.0.0.1
    std::chrono::milliseconds timeout{60'000};
};

// Every operation throws Failure: noDaemon when there is nobody or the daemon closes the connection without any answer
// (which it does to users that it does not serve), incomplete when it ends later or something is no unit.
class DaemonConnection {
  public:
    // Connects. The place holds for the whole process.
    explicit DaemonConnection(DaemonPlace const& place);
    // Over a connection that somebody else has made; the place is for messages only.
    DaemonConnection(DaemonPlace const& place, std::unique_ptr<IPC::Socket> socket);

    void send(IPC::PduType type, std::string_view payload = {});
    // Receives the next unit; it is valid until the next call.
    IPC::Pdu const& receive();

    // Sends a request of the daemon's own and receives its answer, progress units before it. An answer with "error" is
    // returned like any other.
    using Progress = std::function<void(Json const&)>;
    Json ask(IPC::PduType request, Json const& content = Json::object(), Progress const& progress = nullptr);

    // Failure for a unit that has no place in the conversation.
    [[noreturn]] void unexpected(IPC::Pdu const& unit) const;

  private:
    [[noreturn]] void broken(std::string const& reason);

    DaemonPlace m_place;
    IPC::SocketIPC m_socket;
    IPC::Pdu m_unit;
    bool m_answered = false; // the daemon has sent something on this connection
};

// The daemon's own words for what went wrong, escaped; empty when the answer tells of no error.
std::string errorIn(Json const& answer);
// Throws Failure (failed) with them, if there are any.
void failOnError(Json const& answer);
// The answer as --json writes it: indented, in ASCII, with a line end.
std::string prettyJson(Json const& answer);

} // namespace Vellum::Tools
