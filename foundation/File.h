// Paths and output files.
#pragma once

#include <fstream>
#include <string>
#include <vector>

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
// Writes go to a temporary file beside the target (".name.XXXXXX", mode 0600, never following a symbolic link);
// commit() syncs it and renames it over the target, so a reader sees the old file or the new one. Without commit()
// the temporary file is removed by the destructor. Opened truncating: the target's old content is never kept.
// Throws Exception, naming the path and the system's reason, when the file cannot be opened, written or renamed.
template <class Char>
class basic_ofstream : public std::basic_ofstream<Char> {
  public:
    explicit basic_ofstream(Path const& path);
    ~basic_ofstream() override;
    basic_ofstream(basic_ofstream const&) = delete;
    basic_ofstream& operator=(basic_ofstream const&) = delete;

    // Flushes, checks every write so far, syncs, renames. Throws on any failure.
    void commit();

  private:
    std::string m_target;
    std::string m_temporary; // empty once committed
    std::vector<Char> m_buffer;
};
extern template class basic_ofstream<char>;

} // namespace Vellum::File
