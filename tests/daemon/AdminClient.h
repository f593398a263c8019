// The daemon's handlers of requests in JSON, behind a dispatcher of a test's own, and a connection to it. To be a base
// of a fixture, which disconnects before it takes away what the handlers use.
#pragma once

#include "foundation/ipc/Dispatcher.h"
#include "foundation/ipc/Endpoint.h"
#include "foundation/ipc/Pdu.h"
#include "foundation/ipc/SocketIPC.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <string>

namespace Vellum::Daemon {

class AdminClient {
  public:
    AdminClient() = default;
    ~AdminClient() { disconnect(); }
    AdminClient(AdminClient const&) = delete;
    AdminClient& operator=(AdminClient const&) = delete;

  protected:
    // Serves what was added to m_dispatcher, and connects.
    void connect() {
        IPC::DispatcherOptions options;
        options.port = 0;
        m_dispatcher.start(options);
        IPC::Endpoint::map(IPC::stateDaemonPort, "127.0.0.1", m_dispatcher.boundPort());
        m_client.connect(IPC::stateDaemonPort);
    }
    void disconnect() {
        m_client.close();
        m_dispatcher.stop();
        IPC::Endpoint::unmap(IPC::stateDaemonPort);
    }
    void send(IPC::PduType request, std::string const& payload) {
        m_client << IPC::Pdu(request, Buffer(payload.data(), static_cast<unsigned int>(payload.size()), true));
    }
    IPC::Pdu receive() {
        IPC::Pdu unit(IPC::PduType::receiveBuffer, 1024);
        m_client >> unit;
        return unit;
    }
    nlohmann::json askText(IPC::PduType request, std::string const& payload) {
        send(request, payload);
        IPC::Pdu const reply = receive();
        EXPECT_TRUE(reply.is(IPC::PduType::adminReply));
        return nlohmann::json::parse(reply.data().view());
    }
    nlohmann::json ask(IPC::PduType request) { return askText(request, {}); }
    nlohmann::json ask(IPC::PduType request, nlohmann::json const& content) { return askText(request, content.dump()); }

    IPC::Dispatcher m_dispatcher{IPC::stateDaemonPort};
    IPC::SocketIPC m_client;
};

} // namespace Vellum::Daemon
