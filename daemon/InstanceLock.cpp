#include "daemon/InstanceLock.h"

#include "foundation/Exception.h"
#include "foundation/File.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace Vellum::Daemon {
namespace {

Exception refusal(std::string const& path, std::string const& problem) {
    return Exception("InstanceLock", Exception::failure, "InstanceLock").stringParameter(path + ": " + problem);
}

std::string holderOf(int descriptor) {
    char text[32] = {};
    ssize_t const length = ::pread(descriptor, text, sizeof text - 1, 0);
    std::string const pid(text, length > 0 ? std::strcspn(text, "\n") : 0);
    return pid.empty() ? "another process" : "process " + pid;
}

} // namespace

InstanceLock::InstanceLock(std::string const& path)
    : m_descriptor(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600)) {
    if (m_descriptor < 0) {
        throw refusal(path, std::strerror(errno));
    }
    if (::flock(m_descriptor, LOCK_EX | LOCK_NB) != 0) {
        std::string const problem =
            errno == EWOULDBLOCK ? "the state directory is in use by " + holderOf(m_descriptor) : std::strerror(errno);
        ::close(m_descriptor);
        throw refusal(path, problem);
    }
    std::string const pid = std::to_string(::getpid()) + "\n";
    if (::ftruncate(m_descriptor, 0) != 0 ||
        ::pwrite(m_descriptor, pid.data(), pid.size(), 0) != static_cast<ssize_t>(pid.size())) {
        std::string const problem = std::strerror(errno);
        ::close(m_descriptor);
        throw refusal(path, problem);
    }
}

InstanceLock::~InstanceLock() {
    ::close(m_descriptor);
}

PidFile::PidFile(std::string const& path) : m_path(path) {
    if (!m_path.empty()) {
        File::basic_ofstream<char> out{File::Path(m_path)};
        out << ::getpid() << "\n";
        out.commit();
    }
}

PidFile::~PidFile() {
    if (!m_path.empty()) {
        ::unlink(m_path.c_str());
    }
}

} // namespace Vellum::Daemon
