#include "foundation/UnixListener.h"

#include "foundation/Exception.h"

#include <cerrno>
#include <cstring>
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

} // namespace

UnixListener::UnixListener(std::string const& path, mode_t mode) : m_path(path) {
    sockaddr_un const address = addressOf(path);
    if (path.empty() || path != address.sun_path) {
        fail("the path is empty or too long");
    }
    removeStaleFile();
    m_socket = newSocket();
    // Before bind(), fchmod() sets the permissions that the file is made with, less the umask; what that took away is
    // given back afterwards. So the file is never open to more users than it should be.
    if (!m_socket || fchmod(m_socket.get(), mode) != 0 ||
        bind(m_socket.get(), reinterpret_cast<sockaddr const*>(&address), sizeof address) != 0) {
        fail(std::strerror(errno));
    }
    struct stat made {};
    if (lstat(path.c_str(), &made) != 0) {
        fail(std::strerror(errno));
    }
    m_device = made.st_dev;
    m_inode = made.st_ino;
    if (chmod(path.c_str(), mode) != 0 || listen(m_socket.get(), SOMAXCONN) != 0) {
        std::string const reason = std::strerror(errno);
        unlink(path.c_str());
        fail(reason);
    }
}

UnixListener::~UnixListener() {
    struct stat now {};
    if (lstat(m_path.c_str(), &now) == 0 && now.st_dev == m_device && now.st_ino == m_inode) {
        unlink(m_path.c_str());
    }
}

void UnixListener::removeStaleFile() const {
    struct stat found {};
    if (lstat(m_path.c_str(), &found) != 0) {
        return; // nothing there, or bind() will say what is wrong with the path
    }
    if (!S_ISSOCK(found.st_mode)) {
        fail("there is another file at this path");
    }
    FileDescriptor const probe = newSocket();
    sockaddr_un const address = addressOf(m_path);
    if (connect(probe.get(), reinterpret_cast<sockaddr const*>(&address), sizeof address) == 0 || errno == EAGAIN) {
        fail("another process listens there");
    }
    if (errno == ECONNREFUSED) {
        unlink(m_path.c_str());
    }
}

void UnixListener::fail(std::string const& reason) const {
    throw Exception("UnixListener", Exception::failure).stringParameter("cannot listen on " + m_path + ": " + reason);
}

} // namespace Vellum
