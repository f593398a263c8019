// A connection that a test plays: keeps what is sent, and does what the test says at each unit.
#pragma once

#include "foundation/Exception.h"
#include "foundation/ipc/Socket.h"
#include "foundation/ipc/SocketIPC.h"
#include "tests/support/RawClient.h"

#include <deque>
#include <functional>
#include <memory>
#include <string>

namespace Vellum {

class ScriptedSocket : public IPC::Socket {
  public:
    std::string sent;                               // raw units
    std::deque<std::string> arriving;               // raw units that are waiting, one after each record
    std::function<void(std::uint32_t type)> onSend; // before a unit is kept

    bool dataWaiting() override { return !arriving.empty(); }
    void send(std::uint32_t type, void const* payload, std::size_t length) override {
        if (onSend) {
            onSend(type);
        }
        sent += rawUnit(type, {static_cast<char const*>(payload), length});
    }
    void receive(IPC::Pdu& into) override {
        std::string const raw = arriving.front();
        arriving.pop_front();
        into.assign(IPC::Pdu::typeInHeader(raw.data()), raw.data() + IPC::Pdu::headerSize,
                    raw.size() - IPC::Pdu::headerSize);
    }
};

// A client connection over such a socket.
struct ScriptedClient {
    ScriptedSocket& socket = *new ScriptedSocket; // the connection's
    IPC::SocketIPC connection{std::unique_ptr<IPC::Socket>(&socket)};
};

} // namespace Vellum
