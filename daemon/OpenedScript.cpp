#include "daemon/OpenedScript.h"

#include "foundation/Exception.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Vellum::Daemon {
namespace {

[[noreturn]] void fail(std::string const& path, std::string const& reason) {
    throw Exception("OpenedScript", Exception::failure).stringParameter(path + ": " + reason);
}

} // namespace

OpenedScript::OpenedScript(std::string const& path, std::set<uid_t> const& mayAsk)
    : m_path(path), m_file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOFOLLOW)) { // waits for no pipe
    struct stat status {};
    if (!m_file || ::fstat(m_file.get(), &status) != 0) {
        fail(path, errno == ELOOP ? "it is a symbolic link" : std::strerror(errno));
    }
    if (!S_ISREG(status.st_mode)) {
        fail(path, "not a regular file");
    }
    if (status.st_uid != 0 && status.st_uid != ::geteuid() && !mayAsk.contains(status.st_uid)) {
        fail(path,
             "it belongs to user " + std::to_string(status.st_uid) + ", who may not ask for a restore; take a copy");
    }
    if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
        fail(path, "others than its owner may write to it; take a copy");
    }
}

} // namespace Vellum::Daemon
