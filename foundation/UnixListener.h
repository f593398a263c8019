// A listening Unix socket, and what concerns its file.
#pragma once

#include "foundation/FileDescriptor.h"

#include <string>
#include <sys/types.h>

namespace Vellum {

// Removes the file of a socket behind which nobody listens. Nothing there is fine, too. Throws Exception when it is
// something else, or somebody listens.
void removeStaleSocket(std::string const& path);

// Gives a socket's file exactly these permissions. Symbolic links are not followed: whoever may write to the directory
// could otherwise have the permissions of any file of this process's user changed. Throws Exception naming the path and
// the reason.
void setSocketPermissions(std::string const& path, mode_t mode);

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
    std::string const m_path;
    FileDescriptor m_socket;
    // The file as it was made.
    dev_t m_device = 0;
    ino_t m_inode = 0;
};

} // namespace Vellum
