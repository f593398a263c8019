#include "foundation/database/QueryLoadData.h"

#include "foundation/Exception.h"
#include "foundation/FileDescriptor.h"
#include "foundation/database/BatchedInsert.h"
#include "foundation/database/ScriptTransaction.h"
#include "foundation/database/TabbedRow.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <string_view>
#include <sys/stat.h>

namespace Vellum::Database {
namespace {

Exception trouble(std::string const& file, std::string const& what) {
    return Exception("QueryLoadData", Exception::failure).stringParameter(file).stringParameter(what);
}

// Lines of a file, one after the other.
class LineReader {
  public:
    explicit LineReader(std::string const& path)
        : m_path(path), m_file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK)) {
        struct stat about {};
        if (!m_file || fstat(m_file.get(), &about) != 0) {
            throw trouble(path, std::strerror(errno));
        }
        if (!S_ISREG(about.st_mode)) {
            throw trouble(path, "not a regular file");
        }
    }

    // False at the end of the file. The line is valid until the next call.
    bool next(std::string_view& line) {
        ++m_number;
        for (;;) {
            std::size_t const end = m_text.find('\n', m_begin);
            if (end != std::string::npos) {
                line = std::string_view(m_text).substr(m_begin, end - m_begin);
                m_begin = end + 1;
                return true;
            }
            if (m_text.size() - m_begin > QueryLoadData::longestLine) {
                throw refused("is too long");
            }
            if (!readMore()) {
                if (m_begin != m_text.size()) {
                    throw refused("does not end: the file was cut off");
                }
                return false;
            }
        }
    }
    Exception refused(char const* why) const { return trouble(m_path, "line " + std::to_string(m_number) + " " + why); }

  private:
    bool readMore() {
        m_text.erase(0, m_begin);
        m_begin = 0;
        char piece[65536];
        ssize_t got = 0;
        do {
            got = read(m_file.get(), piece, sizeof piece);
        } while (got < 0 && errno == EINTR);
        if (got < 0) {
            throw trouble(m_path, std::strerror(errno));
        }
        m_text.append(piece, static_cast<std::size_t>(got));
        return got > 0;
    }

    std::string const m_path;
    FileDescriptor m_file;
    std::string m_text; // read and not yet taken from m_begin on
    std::size_t m_begin = 0;
    std::uint64_t m_number = 0;
};

// Runs the statement that `text` holds, and empties it.
void runAndClear(ScriptTransaction& transaction, std::string& text) {
    if (!text.empty()) {
        transaction.run(text);
        text.clear();
    }
}

} // namespace

QueryLoadData::QueryLoadData(Connection& connection, std::string const& database, std::string const& table,
                             std::string const& file) {
    constexpr std::size_t longestStatement = 256U << 10; // far below what a server takes
    std::string const name = quotedIdentifier(database) + "." + quotedIdentifier(table);
    LineReader lines(file);
    ScriptTransaction transaction(connection);
    transaction.run("DELETE FROM " + name);
    std::string statement;
    for (std::string_view line; lines.next(line); ++m_rows) {
        if (m_rows % BatchedInsert::rowsPerStatement == 0 || statement.size() > longestStatement) {
            runAndClear(transaction, statement);
        }
        statement += statement.empty() ? "REPLACE INTO " + name + " VALUES\n" : ",\n";
        if (!appendTabbedRow(statement, line)) {
            throw lines.refused("ends within an escape");
        }
    }
    runAndClear(transaction, statement);
    transaction.commit();
}

} // namespace Vellum::Database
