#include "foundation/File.h"

#include "foundation/Exception.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

namespace Vellum::File {
namespace {

std::string directoryOf(std::string const& path) {
    std::size_t const slash = path.rfind('/');
    return slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
}

// "/dir/name" gives "/dir/.name.XXXXXX", where mkostemp fills in the end.
std::string temporaryPatternFor(std::string const& path) {
    std::size_t const slash = path.rfind('/');
    std::size_t const name = slash == std::string::npos ? 0 : slash + 1;
    return path.substr(0, name) + '.' + path.substr(name) + ".XXXXXX";
}

// Makes a rename outlast a power failure. Best effort: not every file system can, and the file itself is safe.
void syncDirectoryOf(std::string const& path) {
    int const directory = ::open(directoryOf(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (directory >= 0) {
        static_cast<void>(::fsync(directory));
        ::close(directory);
    }
}

} // namespace

bool Path::exists() const {
    return ::access(m_path.c_str(), F_OK) == 0;
}

template <class Char>
basic_ofstream<Char>::basic_ofstream(Path const& path, unsigned int mode)
    : std::basic_ostream<Char>(nullptr), m_target(path.asString()), m_temporary(temporaryPatternFor(m_target)) {
    // mkostemp creates the file anew (O_EXCL), so no link that waits there can lead the writes elsewhere.
    int const descriptor = ::mkostemp(m_temporary.data(), O_CLOEXEC);
    if (descriptor < 0) {
        fail("open", errno);
    }
    m_buffer.attach(descriptor);
    if (::fchmod(descriptor, mode) != 0) {
        int const error = errno;
        ::unlink(m_temporary.c_str());
        fail("set the permissions of", error);
    }
    this->rdbuf(&m_buffer);
}

template <class Char>
basic_ofstream<Char>::~basic_ofstream() {
    if (!m_temporary.empty()) {
        ::unlink(m_temporary.c_str());
    }
}

template <class Char>
void basic_ofstream<Char>::commit() {
    if (m_temporary.empty()) {
        fail("commit", EBADF);
    }
    this->flush();
    if (!this->good()) {
        fail("write", m_buffer.error() != 0 ? m_buffer.error() : EIO);
    }
    if (::fsync(m_buffer.descriptor()) != 0) {
        fail("sync", errno);
    }
    if (int const error = m_buffer.close(); error != 0) {
        fail("close", error);
    }
    if (std::rename(m_temporary.c_str(), m_target.c_str()) != 0) {
        fail("replace", errno);
    }
    m_temporary.clear();
    syncDirectoryOf(m_target);
}

template <class Char>
void basic_ofstream<Char>::fail(char const* operation, int error) const {
    throw Exception("File::basic_ofstream", Exception::failure, "File")
        .stringParameter(std::string("cannot ") + operation + ' ' + m_target + ": " +
                         std::generic_category().message(error));
}

template class basic_ofstream<char>;

} // namespace Vellum::File
