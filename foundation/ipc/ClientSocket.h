// A client's end of a connection to a dispatcher: waits, within its timeouts.
//
// Received bytes are read in pieces of up to 256 KiB and units are taken out of them, so a long listing costs few
// system calls. One thread at a time.
#pragma once

#include "foundation/FileDescriptor.h"
#include "foundation/ipc/Endpoint.h"
#include "foundation/ipc/Socket.h"
#include "foundation/ipc/SocketIPC.h"

#include <chrono>
#include <memory>
#include <string>

namespace Vellum::IPC {

class ClientSocket : public Socket {
  public:
    // Connects to the dispatcher of that registry number. Throws Exception naming the place and the reason.
    ClientSocket(int registryNumber, ClientTimeouts const& timeouts);
    // Goes on with a connection that stands already; `place` is for messages.
    ClientSocket(Endpoint place, FileDescriptor connected, ClientTimeouts const& timeouts);
    // After a request that nothing was received for, waits up to a second until the daemon ends the connection.
    ~ClientSocket() override;

    // True as well when the daemon has ended the connection.
    bool dataWaiting() override;
    void send(std::uint32_t type, void const* payload, std::size_t length) override;
    // A payload beyond 64 MiB is none that a daemon sends, and refused.
    void receive(Pdu& into) override;

  private:
    void open();
    // Waits for `events`; throws Exception when they do not come within `limit`.
    void await(short events, std::chrono::milliseconds limit, char const* operation);
    bool ready(short events, std::chrono::milliseconds limit) const;
    // Reads until at least `wanted` bytes are buffered.
    void fill(std::size_t wanted);
    void reserve(std::size_t wanted);
    [[noreturn]] void fail(char const* operation, std::string const& reason);

    Endpoint m_endpoint;
    ClientTimeouts m_timeouts;
    FileDescriptor m_socket;
    bool m_unanswered = false; // the last thing that happened was a send

    // Received and not yet taken: [m_begin, m_end).
    std::unique_ptr<char[]> m_buffer;
    std::size_t m_capacity = 0;
    std::size_t m_begin = 0;
    std::size_t m_end = 0;
};

} // namespace Vellum::IPC
