// What the journal does to files, each step with the error that names the file.
#pragma once

#include "foundation/FileDescriptor.h"

#include <cstdint>
#include <string>
#include <sys/types.h>

namespace Vellum::DatabaseDaemon {

// All throw Exception: "<what> <path>: <the system's reason>".

// Copies `length` bytes of `from`, beginning at its start, into a new file (mode 0600) and syncs it. An existing file
// is an error. On a failure the new file is removed.
void copyToNewFile(int from, std::uint64_t length, std::string const& path);
// Makes changes of names in a directory durable.
void syncDirectory(std::string const& path);
void renameFile(std::string const& from, std::string const& to);
// Removes a file; one that is not there is no error.
void removeFile(std::string const& path);
// When the file was written last, seconds since the epoch.
long modificationTime(std::string const& path);
// Makes a directory (mode 0700); one that is there is no error.
void makeDirectory(std::string const& path);

} // namespace Vellum::DatabaseDaemon
