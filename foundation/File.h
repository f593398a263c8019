// Paths and output files.
#pragma once

#include "foundation/FileBuffer.h"

#include <ostream>
#include <string>

namespace Vellum::File {

class Path {
  public:
    explicit Path(std::string const& path) : m_path(path) {}
    bool exists() const; // access(2) F_OK
    operator char const*() const { return m_path.c_str(); }
    std::string const& asString() const { return m_path; }

  private:
    std::string m_path;
};

// An output stream into a file that appears whole or not at all.
//
// Writes go to a temporary file beside the target (".name.XXXXXX"); commit() syncs it and renames it over the target,
// so a reader sees the old file or the new one. A symbolic link in the target's place is replaced, never followed.
// Without commit() the temporary file is removed by the destructor. Opened truncating: the target's old content is
// never kept. Only a process killed half-way leaves its temporary file behind.
// Throws Exception, naming the path and the system's reason, when the file cannot be opened, written or renamed. Writes
// do not throw: the stream goes bad, and commit() tells why.
// Not a std::basic_ofstream: that one forgets why a write failed, and can be opened by name only.
template <class Char>
class basic_ofstream : public std::basic_ostream<Char> {
  public:
    // `mode`: the permissions of the new file; its owner's alone unless said otherwise, because scripts hold addresses.
    explicit basic_ofstream(Path const& path, unsigned int mode = 0600);
    ~basic_ofstream() override;
    basic_ofstream(basic_ofstream const&) = delete;
    basic_ofstream& operator=(basic_ofstream const&) = delete;

    // Flushes, checks every write so far, syncs, renames. Throws on any failure, and on a second call. Waits for the
    // disk.
    void commit();

  private:
    [[noreturn]] void fail(char const* operation, int error) const;

    std::string m_target;
    std::string m_temporary; // empty once committed
    FileBuffer m_buffer;
};
extern template class basic_ofstream<char>;

} // namespace Vellum::File
