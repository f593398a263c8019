// Which user owns the other end of a TCP connection within this machine.
//
// The kernel is asked, by the connection's addresses and ports: through socket diagnostics, or, where a system has
// none, by reading /proc/net/tcp. A peer that has closed its end already is the difficult case. Some kernels still tell
// its owner then, others call it root; which kind this one is, is tried out once. What cannot be told for sure is not
// told, so on the second kind a peer has to keep its end open until it was served.
//
// What is read or asked through is opened once: an answer wants no further descriptor, so that also a process that has
// none left knows whom it turns away.
//
// One thread at a time.
#pragma once

#include "foundation/FileDescriptor.h"
#include "foundation/ipc/Address.h"

#include <cstdint>
#include <optional>
#include <sys/types.h>

namespace Vellum::IPC {

class PeerOwner {
  public:
    enum class Means { best, procOnly };

    explicit PeerOwner(Means means = Means::best);

    // Nothing when the kernel cannot tell, or the peer is on another machine.
    std::optional<uid_t> of(int connectedSocket);
    // The owner of the socket with these two ends.
    std::optional<uid_t> of(SystemAddress const& local, SystemAddress const& remote);

  private:
    // What the kernel says of one socket.
    struct Found {
        unsigned int state; // as TCP_ESTABLISHED and so on
        uid_t user;
        std::uint64_t inode; // 0 when no process holds the socket
    };
    std::optional<Found> ask(SystemAddress const& local, SystemAddress const& remote);
    std::optional<Found> askDiagnostics(SystemAddress const& local, SystemAddress const& remote);
    std::optional<Found> searchTables(SystemAddress const& local, SystemAddress const& remote) const;
    void tryOut();

    FileDescriptor m_diagnostics; // none: the tables are read
    FileDescriptor m_table;       // /proc/net/tcp
    FileDescriptor m_table6;      // /proc/net/tcp6
    std::uint32_t m_sequence = 0; // of the last question
    bool m_remembersOwners = false;
};

} // namespace Vellum::IPC
