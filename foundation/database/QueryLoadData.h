// Fills a table from a tab-separated file.
#pragma once

#include "foundation/database/Connection.h"

#include <cstdint>
#include <string>

namespace Vellum::Database {

// Replaces all rows of `table` with those of the file, all or nothing: a reader sees the old rows or the new ones, and
// after a failure the old ones are there.
//
// The file: one row each line, a tab between columns, a line feed behind the last. A backslash makes the next character
// part of the value; \t, \n, \r and \0 are those characters. There is no NULL. Rows with the same key do not fail each
// other: the last one stays.
//
// The rows go as statements of the client. The server is never allowed to ask for a file of this machine, which the
// protocol's own way would need; at some ten thousand short rows that costs nothing worth speaking of.
class QueryLoadData {
  public:
    static constexpr std::size_t longestLine = 64U << 10; // bytes

    // Does it all. A symbolic link in the file's place is not followed. Throws Exception naming the file and the
    // system's reason, or the line, when it cannot be read; DatabaseException when the server refuses.
    QueryLoadData(Connection& connection, std::string const& database, std::string const& table,
                  std::string const& file);

    // Lines of the file.
    std::uint64_t rows() const { return m_rows; }

  private:
    std::uint64_t m_rows = 0;
};

} // namespace Vellum::Database
