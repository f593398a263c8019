#include "foundation/ipc/SocketIPC.h"

#include "foundation/Exception.h"
#include "foundation/ipc/ClientSocket.h"

namespace Vellum::IPC {

void SocketIPC::connect(int port) {
    m_socket.reset();
    m_socket = std::make_unique<ClientSocket>(port, m_timeouts);
}

Socket& SocketIPC::socket() const {
    if (m_socket == nullptr) {
        throw Exception("SocketIPC::socket", Exception::failure, "SocketIPC").stringParameter("not connected");
    }
    return *m_socket;
}

SocketIPC& operator<<(SocketIPC& connection, Pdu const& pdu) {
    connection.socket().send(pdu.type(), pdu.data().data(), pdu.data().length());
    return connection;
}

SocketIPC& operator>>(SocketIPC& connection, Pdu& pdu) {
    connection.socket().receive(pdu);
    return connection;
}

} // namespace Vellum::IPC
