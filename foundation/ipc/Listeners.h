// The sockets on which a dispatcher takes connections: one for each address, all with the same port.
#pragma once

#include "foundation/FileDescriptor.h"

#include <optional>
#include <string>
#include <vector>

namespace Vellum::IPC {

class Listeners {
  public:
    // Binds and listens. With port 0 the kernel chooses one. Throws Exception naming address, port and reason.
    Listeners(std::vector<std::string> const& addresses, unsigned int port);

    unsigned int port() const { return m_port; }
    std::vector<FileDescriptor> const& sockets() const { return m_sockets; }
    bool contains(int descriptor) const;

    enum class Outcome {
        connection, // one was accepted
        none,       // none is waiting
        exhausted,  // one was waiting and was closed: this process or the system has no descriptor for it
        crowded,    // the same, but it waits on: others have the spare descriptor, too; would be so again at once
        trouble,    // the kernel could not (errno tells why), and would say so again at once
    };
    // Accepts one connection, without waiting.
    Outcome accept(int listener, FileDescriptor& connection);

  private:
    // False when the port is taken, and another may be tried.
    bool open(std::vector<std::string> const& addresses, unsigned int port);
    std::optional<Outcome> turnAway(int listener);

    std::vector<FileDescriptor> m_sockets;
    unsigned int m_port = 0;
    FileDescriptor m_spare; // given up for a moment to be able to turn a connection away
};

} // namespace Vellum::IPC
