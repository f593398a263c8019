// A listening Unix socket.
#pragma once

#include "foundation/FileDescriptor.h"

#include <string>
#include <sys/types.h>

namespace Vellum {

// Non-blocking; closed, and its file removed, at the end of its life, unless somebody has put another file in its
// place.
//
// The file gets exactly the permissions asked for, whatever the umask, and at no moment wider ones. A file left over by
// a process that died is replaced: only if it is a socket and nobody listens behind it.
class UnixListener {
  public:
    // Throws Exception naming the path and the system's reason.
    UnixListener(std::string const& path, mode_t mode);
    ~UnixListener();
    UnixListener(UnixListener const&) = delete;
    UnixListener& operator=(UnixListener const&) = delete;

    int descriptor() const { return m_socket.get(); }

  private:
    void removeStaleFile() const;
    [[noreturn]] void fail(std::string const& reason) const;

    std::string const m_path;
    FileDescriptor m_socket;
    // The file as it was made.
    dev_t m_device = 0;
    ino_t m_inode = 0;
};

} // namespace Vellum
