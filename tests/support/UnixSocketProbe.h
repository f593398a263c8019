// Whether a daemon on a Unix socket takes connections. Its file is there a moment earlier: it is made before the daemon
// listens.
#pragma once

#include "foundation/FileDescriptor.h"

#include <string>
#include <sys/socket.h>
#include <sys/un.h>

namespace Vellum {

inline bool takesConnections(std::string const& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    FileDescriptor const socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    return ::connect(socket.get(), reinterpret_cast<sockaddr const*>(&address), sizeof address) == 0;
}

} // namespace Vellum
