// Where a front of the daemon listens, and the socket that does.
//
//   inet:127.0.0.1:10031   inet:[::1]:10031   unix:/run/vellum/policy
#pragma once

#include "foundation/FileDescriptor.h"
#include "foundation/SocketAddress.h"
#include "foundation/UnixListener.h"

#include <optional>
#include <string>
#include <string_view>
#include <sys/types.h>

namespace Vellum::Daemon {

struct ListenAddress {
    SocketAddress inet; // null for a Unix socket
    std::string path;   // of a Unix socket, absolute; else empty

    // Reads one of the forms above; host names are not looked up. Throws Exception naming the text and what is allowed.
    static ListenAddress parse(std::string_view text);
    bool isUnix() const { return !path.empty(); }
    // The text that parse() reads.
    std::string asString() const;
};

// A non-blocking listening socket, closed at the end of its life. What becomes of the file of a Unix socket is said in
// foundation/UnixListener.h.
class ListeningSocket {
  public:
    // Throws Exception naming the address and the system's reason.
    ListeningSocket(ListenAddress const& address, mode_t unixMode);
    ListeningSocket(ListeningSocket const&) = delete;
    ListeningSocket& operator=(ListeningSocket const&) = delete;

    int descriptor() const { return m_unix ? m_unix->descriptor() : m_inet.get(); }
    // Where it listens; a port 0 is replaced by the one that the kernel chose.
    ListenAddress const& address() const { return m_address; }

  private:
    void listenInet();
    void setOption(int level, int option) const;
    [[noreturn]] void fail(char const* operation) const;

    ListenAddress m_address;
    // One of them.
    FileDescriptor m_inet;
    std::optional<UnixListener> m_unix;
};

} // namespace Vellum::Daemon
