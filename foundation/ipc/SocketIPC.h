// A connection on which units travel: a client's, or the one that a handler is given.
//
// A client:
//
//   IPC::SocketIPC daemon;
//   daemon.connect(IPC::stateDaemonPort);
//   daemon << IPC::Pdu(IPC::PduType::listTuples, 0);
//   IPC::Pdu reply(IPC::PduType::receiveBuffer, 1024);
//   do { daemon >> reply; ... } while (!reply.is(IPC::PduType::endOfListing));
//
// A client's operations wait, up to the timeouts. Received bytes are read in large pieces, so that a listing of a
// million records costs little more than copying them; receive into the same Pdu again and again.
//
// A handler's connection (flag false or true) is different in that nothing a client does makes it wait for long:
//   <<            copies into a buffer and hands full pieces of 64 KiB to the kernel; what the kernel does not take is
//                 kept, up to the dispatcher's bounds, and sent when the handler is done. At the bound it waits while
//                 the client keeps reading. Throws Exception when the client is gone or takes nothing for a second.
//   dataWaiting() is cheap enough for every record of a long listing. True when a whole unit has arrived, or something
//                 that is none; a client that only begins a unit is not waited for. A stop that was sent before the
//                 first record is seen after the first record; a later one within the records of a piece.
//   >>            reads a unit that has arrived; throws when none has.
// A client that has only shut down its sending side still gets its replies.
//
// One thread at a time. Not copyable.
#pragma once

#include "foundation/ipc/Pdu.h"
#include "foundation/ipc/Socket.h"

#include <chrono>
#include <memory>

namespace Vellum::IPC {

// How long a client waits at most; zero waits for ever.
struct ClientTimeouts {
    std::chrono::milliseconds connect{10'000};
    std::chrono::milliseconds send{10'000};    // without the daemon taking a single byte
    std::chrono::milliseconds receive{60'000}; // without the daemon sending a single byte
};

class SocketIPC {
  public:
    SocketIPC() = default; // not connected; every operation but connect() throws
    explicit SocketIPC(std::unique_ptr<Socket> socket) : m_socket(std::move(socket)) {}

    // For connections made after the call.
    void timeouts(ClientTimeouts const& timeouts) { m_timeouts = timeouts; }
    // Connects to the dispatcher of that registry number, wherever Endpoint.h says it listens; an older connection of
    // this object ends. Throws Exception naming the place and the system's reason.
    void connect(int port);
    bool isConnected() const { return m_socket != nullptr; }
    // Ends the connection. When the last thing was a request, waits until the daemon is done with it, a second at most:
    // a peer that is gone before the daemon could ask the kernel who it is would be refused.
    void close() { m_socket.reset(); }

    Socket& socket() const;
    // As << without a Pdu around the bytes.
    void send(PduType type, void const* payload, std::size_t length) { socket().send(number(type), payload, length); }

  private:
    std::unique_ptr<Socket> m_socket;
    ClientTimeouts m_timeouts;
};

SocketIPC& operator<<(SocketIPC& connection, Pdu const& pdu);
SocketIPC& operator>>(SocketIPC& connection, Pdu& pdu);

} // namespace Vellum::IPC
