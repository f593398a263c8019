// Where a front of the daemon listens, and the socket that does.
//
//   inet:127.0.0.1:10031   inet:[::1]:10031   unix:/run/vellum/policy
#pragma once

#include "foundation/SocketAddress.h"

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

// A non-blocking listening socket, closed at the end of its life.
//
// A Unix socket gets exactly the permissions asked for, whatever the umask, and at no moment wider ones. A socket file
// left over by a process that died is replaced: only if it is a socket and nobody answers behind it. Anything else at
// that path, a symbolic link too, is left alone and refused. At the end the file is removed, unless somebody has put
// another in its place.
class ListeningSocket {
  public:
    // Throws Exception naming the address and the system's reason.
    ListeningSocket(ListenAddress const& address, mode_t unixMode);
    ~ListeningSocket();
    ListeningSocket(ListeningSocket const&) = delete;
    ListeningSocket& operator=(ListeningSocket const&) = delete;

    int descriptor() const { return m_descriptor; }
    // Where it listens; a port 0 is replaced by the one that the kernel chose.
    ListenAddress const& address() const { return m_address; }

  private:
    void listenInet();
    void listenUnix(mode_t mode);
    void removeStaleFile() const;
    void open(int family);
    void release();
    [[noreturn]] void fail(std::string const& operation, int error) const;

    ListenAddress m_address;
    int m_descriptor = -1;
    // The socket file as it was made; 0 when there is none.
    dev_t m_device = 0;
    ino_t m_inode = 0;
};

} // namespace Vellum::Daemon
