#include "foundation/UnixListener.h"

#include "foundation/Exception.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace Vellum {

namespace {

sockaddr_un addressOf(std::string const& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(static_cast<char*>(address.sun_path), sizeof address.sun_path - 1);
    return address;
}

FileDescriptor newSocket() {
    return FileDescriptor(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
}

[[noreturn]] void fail(std::string const& path, std::string const& reason) {
    throw Exception("UnixListener", Exception::failure).stringParameter("cannot listen on " + path + ": " + reason);
}

} // namespace

void removeStaleSocket(std::string const& path) {
    struct stat found {};
    if (lstat(path.c_str(), &found) != 0) {
        return; // nothing there, or bind() will say what is wrong with the path
    }
    if (!S_ISSOCK(found.st_mode)) {
        fail(path, "there is another file at this path");
    }
    FileDescriptor const probe = newSocket();
    sockaddr_un const address = addressOf(path);
    if (connect(probe.get(), reinterpret_cast<sockaddr const*>(&address), sizeof address) == 0 || errno == EAGAIN) {
        fail(path, "another process listens there");
    }
    if (errno == ECONNREFUSED) {
        unlink(path.c_str());
    }
}

// chmod() follows links and fchmod() of a socket is not about its file; the way through /proc names the file that was
// looked at, whatever has become of the path meanwhile.
void setSocketPermissions(std::string const& path, mode_t mode) {
    FileDescriptor const file(open(path.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    struct stat found {};
    if (!file || fstat(file.get(), &found) != 0) {
        fail(path, std::strerror(errno));
    }
    if (!S_ISSOCK(found.st_mode)) {
        fail(path, "somebody has put another file at this path");
    }
    if (chmod(("/proc/self/fd/" + std::to_string(file.get())).c_str(), mode) != 0) {
        fail(path, std::strerror(errno));
    }
}

UnixListener::UnixListener(std::string const& path, mode_t mode) : m_path(path) {
    sockaddr_un const address = addressOf(path);
    if (path.empty() || path != address.sun_path) {
        fail(path, "the path is empty or too long");
    }
    removeStaleSocket(path);
    m_socket = newSocket();
    // Before bind(), fchmod() sets the permissions that the file is made with, less the umask; what that took away is
    // given back afterwards. So the file is never open to more users than it should be.
    if (!m_socket || fchmod(m_socket.get(), mode) != 0 ||
        bind(m_socket.get(), reinterpret_cast<sockaddr const*>(&address), sizeof address) != 0) {
        fail(path, std::strerror(errno));
    }
    struct stat made {};
    if (lstat(path.c_str(), &made) != 0) {
        fail(path, std::strerror(errno));
    }
    m_device = made.st_dev;
    m_inode = made.st_ino;
    try {
        setSocketPermissions(path, mode);
        if (listen(m_socket.get(), SOMAXCONN) != 0) {
            fail(path, std::strerror(errno));
        }
    } catch (Exception const&) {
        unlink(path.c_str()); // removes a link, if that is what is there, not what it leads to
        throw;
    }
}

UnixListener::~UnixListener() {
    struct stat now {};
    if (lstat(m_path.c_str(), &now) == 0 && now.st_dev == m_device && now.st_ino == m_inode) {
        unlink(m_path.c_str());
    }
}

} // namespace Vellum
