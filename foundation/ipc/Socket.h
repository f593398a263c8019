// One end of a connection, as SocketIPC uses it.
//
// Two kinds exist: the client's (ClientSocket.h), which waits, and the dispatcher's (ServerConnection.h), which never
// waits for a peer that has begun something and does not go on. Tests bring their own.
#pragma once

#include <cstddef>
#include <cstdint>

namespace Vellum::IPC {

class Pdu;

class Socket {
  public:
    Socket() = default;
    virtual ~Socket() = default;
    Socket(Socket const&) = delete;
    Socket& operator=(Socket const&) = delete;

    // Whether receive() would not have to wait: the peer has sent a unit, or something that is none, or is gone.
    virtual bool dataWaiting() = 0;
    // Sends one unit; it may stay in a buffer of this process for a while. Throws Exception when it cannot be sent.
    virtual void send(std::uint32_t type, void const* payload, std::size_t length) = 0;
    // Hands what was sent so far to the kernel, as much as that takes without waiting. For a unit that the peer should
    // see long before the next one follows.
    virtual void flush() {}
    // Receives one unit. Throws Exception when the peer is gone, too slow, or sent something that is no unit.
    virtual void receive(Pdu& into) = 0;
};

} // namespace Vellum::IPC
