// The dispatcher's end of one connection.
//
// At any time it belongs to one thread: to the dispatcher's loop, or, while a task that may take long is queued or
// runs, to that worker. Only abort() may be called by another. What handlers are promised is told in SocketIPC.h.
#pragma once

#include "foundation/FileDescriptor.h"
#include "foundation/ipc/Budget.h"
#include "foundation/ipc/FrameReader.h"
#include "foundation/ipc/OutputQueue.h"
#include "foundation/ipc/Socket.h"

#include <atomic>
#include <chrono>
#include <cstddef>
#include <string>

namespace Vellum::IPC {

struct DispatcherOptions;

// What all connections of a dispatcher share.
struct ConnectionShares {
    explicit ConnectionShares(DispatcherOptions const& options);

    std::size_t const maxFrameBytes;
    std::size_t const outputBound;
    std::chrono::milliseconds const stallTimeout;
    std::chrono::milliseconds const waitTimeout;
    Budget input;
    Budget output;
};

class ServerConnection : public Socket {
  public:
    using Clock = std::chrono::steady_clock;

    enum class Input {
        some,   // bytes were read
        none,   // none are there
        ended,  // the peer has shut down its sending side
        failed, // see failure()
    };

    // `socket` is connected; `name` is what logs call the peer; `shares` outlives the connection.
    ServerConnection(FileDescriptor socket, std::string name, ConnectionShares& shares);

    // As Socket, for the task in hand. A peer that has shut down its sending side has nothing waiting.
    bool dataWaiting() override;
    void send(std::uint32_t type, void const* payload, std::size_t length) override;
    void receive(Pdu& into) override;
    void flush() override { write(); }

    // Begins a task. `mayWait`: at the bound, send() waits as told in SocketIPC.h; otherwise it throws at once.
    void beginTask(bool mayWait);

    // Reads once, at most 16 KiB, without waiting.
    Input read();
    // As read(), and forgets what was read.
    Input discard();
    FrameReader& frames() { return m_frames; }
    bool inputEnded() const { return m_inputEnded; }
    // Writes what the kernel takes now; answers the number of bytes. 0 as well when the connection has failed.
    std::size_t write();
    bool hasOutput() const { return !m_output.isEmpty(); }
    // Whether the kernel holds less for the peer than at the last such question.
    bool peerTookMore();
    // Gives back the memory of a connection that has nothing to send.
    void rest() { m_output.release(); }
    // Says that nothing more will be sent.
    void finishOutput();
    // Why the connection can only be closed; empty while it is sound.
    std::string const& failure() const { return m_failure; }
    // Whether it failed because the peer has left, as any client may.
    bool peerLeft() const { return m_peerLeft; }

    // Makes every operation fail from now on, also one that waits. For any thread.
    void abort();
    int descriptor() const { return m_socket.get(); }
    std::string const& name() const { return m_name; }

  private:
    template <class Keep>
    Input readWith(Keep keep);
    bool unitWaiting() const;
    void put(char const* bytes, std::size_t length);
    void makeRoom();
    void awaitRoom();
    void fail(std::string const& reason);
    void failWith(int error);
    [[noreturn]] void raise(char const* operation) const;

    FileDescriptor m_socket;
    std::string const m_name;
    ConnectionShares& m_shares;
    FrameReader m_frames;
    OutputQueue m_output;
    int m_unacknowledged = 0; // bytes in the kernel's buffer at the last peerTookMore()
    bool m_inputEnded = false;
    bool m_peerLeft = false;
    std::string m_failure;
    std::atomic<bool> m_aborted{false};

    // Of the task in hand.
    bool m_mayWait = false;
    Clock::duration m_waited{};    // in all
    unsigned int m_eagerLooks = 0; // looks that dataWaiting() still takes whatever was sent
    bool m_sentSinceLook = true;
    bool m_wroteSinceLook = false; // a piece went to the kernel
};

} // namespace Vellum::IPC
