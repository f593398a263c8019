#include "dbdaemon/FileOperations.h"

#include "foundation/Exception.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace Vellum::DatabaseDaemon {

namespace {

constexpr std::size_t pieceSize = 1U << 20;

Exception failure(char const* what, std::string const& path) {
    return Exception("Journal", Exception::failure)
        .stringParameter(std::string(what) + ' ' + path + ": " + std::strerror(errno));
}

void writeAll(int to, char const* bytes, std::size_t length, std::string const& path) {
    while (length > 0) {
        ssize_t const written = write(to, bytes, length);
        if (written < 0 && errno != EINTR) {
            throw failure("writing", path);
        }
        std::size_t const done = static_cast<std::size_t>(std::max<ssize_t>(written, 0));
        bytes += done;
        length -= done;
    }
}

// Through this process, for file systems that do not copy by themselves.
void copyThroughMemory(int from, int to, std::uint64_t offset, std::uint64_t length, std::string const& path) {
    std::vector<char> piece(pieceSize);
    while (length > 0) {
        ssize_t const got =
            pread(from, piece.data(), std::min<std::uint64_t>(piece.size(), length), static_cast<off_t>(offset));
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got <= 0) {
            errno = got == 0 ? ENODATA : errno; // became shorter meanwhile
            throw failure("reading the script for", path);
        }
        writeAll(to, piece.data(), static_cast<std::size_t>(got), path);
        offset += static_cast<std::uint64_t>(got);
        length -= static_cast<std::uint64_t>(got);
    }
}

void copyBytes(int from, int to, std::uint64_t length, std::string const& path) {
    off64_t offset = 0;
    while (length > 0) {
        ssize_t const copied = copy_file_range(from, &offset, to, nullptr, length, 0);
        if (copied < 0 && errno == EINTR) {
            continue;
        }
        if (copied <= 0) {
            break;
        }
        length -= static_cast<std::uint64_t>(copied);
    }
    // What the kernel would not copy, for whatever reason; a real error shows again here.
    copyThroughMemory(from, to, static_cast<std::uint64_t>(offset), length, path);
}

} // namespace

void copyToNewFile(int from, std::uint64_t length, std::string const& path) {
    FileDescriptor const to(open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600));
    if (!to) {
        throw failure("creating", path);
    }
    try {
        copyBytes(from, to.get(), length, path);
        if (fsync(to.get()) != 0) {
            throw failure("syncing", path);
        }
    } catch (...) {
        unlink(path.c_str());
        throw;
    }
}

void syncDirectory(std::string const& path) {
    FileDescriptor const directory(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!directory || fsync(directory.get()) != 0) {
        throw failure("syncing the directory", path);
    }
}

void renameFile(std::string const& from, std::string const& to) {
    if (rename(from.c_str(), to.c_str()) != 0) {
        throw failure("renaming", from);
    }
}

void removeFile(std::string const& path) {
    if (unlink(path.c_str()) != 0 && errno != ENOENT) {
        throw failure("removing", path);
    }
}

long modificationTime(std::string const& path) {
    struct stat status {};
    if (stat(path.c_str(), &status) != 0) {
        throw failure("looking at", path);
    }
    return status.st_mtime;
}

void makeDirectory(std::string const& path) {
    if (mkdir(path.c_str(), 0700) != 0 && errno != EEXIST) {
        throw failure("creating the directory", path);
    }
}

} // namespace Vellum::DatabaseDaemon
