#include "foundation/database/QueryFile.h"

#include "foundation/database/Query.h"
#include "foundation/database/ScriptRun.h"
#include "foundation/database/StatementSplitter.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace Vellum::Database {

namespace {

constexpr std::size_t pieceSize = std::size_t{256} * 1024;

DatabaseException refusal(std::string const& message) {
    return {scriptOperation, 0, message};
}

// A disk in trouble, or a process out of descriptors or memory, says nothing about the script.
DatabaseException refusal(std::string const& what, int error) {
    DatabaseException const failed = refusal(what + ": " + std::strerror(error));
    bool const passes = error == EIO || error == EMFILE || error == ENFILE || error == ENOMEM;
    return passes ? failed.asPassing() : failed;
}

// The script, piece by piece.
class ScriptFile {
  public:
    // Never waits: a FIFO without a writer would hold an ordinary open() for ever.
    explicit ScriptFile(ScriptSource const& script)
        : m_descriptor(script.descriptor >= 0 ? fcntl(script.descriptor, F_DUPFD_CLOEXEC, 0)
                                              : open(script.path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK)) {
        if (m_descriptor < 0) {
            throw refusal("cannot be opened", errno);
        }
        struct stat status {};
        if (fstat(m_descriptor, &status) != 0 || !S_ISREG(status.st_mode)) {
            close(m_descriptor);
            throw refusal("is not a regular file");
        }
        m_size = static_cast<std::uint64_t>(status.st_size);
    }
    ~ScriptFile() { close(m_descriptor); }
    ScriptFile(ScriptFile const&) = delete;
    ScriptFile& operator=(ScriptFile const&) = delete;

    // The next piece, empty at the end.
    std::string_view read() {
        ssize_t got = 0;
        do {
            got = ::pread(m_descriptor, m_piece.data(), m_piece.size(), static_cast<off_t>(m_done));
        } while (got < 0 && errno == EINTR);
        if (got < 0) {
            throw refusal("cannot be read", errno);
        }
        m_done += static_cast<std::uint64_t>(got);
        return {m_piece.data(), static_cast<std::size_t>(got)};
    }
    std::uint64_t done() const { return m_done; }
    std::uint64_t size() const { return m_size; }

  private:
    int m_descriptor;
    std::uint64_t m_size = 0;
    std::uint64_t m_done = 0;
    std::vector<char> m_piece = std::vector<char>(pieceSize);
};

// A statement with the byte of its command must be shorter than the server's packet limit. The server answers a longer
// one by hanging up, which looks like a lost connection and would be tried again for ever.
class PacketLimit : public RowParser {
  public:
    explicit PacketLimit(Connection& connection) {
        Query query(connection, this, true);
        query << "SELECT @@max_allowed_packet";
        query.execute();
    }
    void parse(void* handle, void* result) override {
        m_bytes = std::strtoull(db_result_get_value(handle, result, db_result_fetch_row(result, 0), 0), nullptr, 10);
    }
    std::size_t longestStatement() const {
        return std::min<unsigned long long>(StatementSplitter::defaultLimit, std::max(m_bytes, 3ULL) - 2);
    }

  private:
    unsigned long long m_bytes = 0;
};

} // namespace

QueryFile::QueryFile(Connection& connection, ScriptSource const& script) : m_connection(connection), m_script(script) {}

void QueryFile::execute() {
    m_statements = 0;
    m_affectedRows = 0;
    try {
        ScriptFile file(m_script);
        std::size_t const longest = PacketLimit(m_connection).longestStatement();
        ScriptTransaction transaction(m_connection);
        ScriptRun run(transaction);
        try {
            StatementSplitter splitter(
                [&](Statement const& statement) {
                    takeStatement(statement, run);
                    if (m_progress && !m_progress(file.done(), file.size())) {
                        throw refusal("abandoned");
                    }
                },
                longest);
            for (std::string_view piece = file.read(); !piece.empty(); piece = file.read()) {
                splitter.feed(piece);
            }
            splitter.finish();
            run.finish();
        } catch (DatabaseException const& failure) {
            throw failure.within(scriptOperation, transaction.abandon());
        }
        m_affectedRows = run.affectedRows();
    } catch (DatabaseException const& failure) {
        throw failure.within(scriptOperation, m_script.path);
    }
}

void QueryFile::takeStatement(Statement const& statement, ScriptRun& run) {
    m_statements = statement.number;
    try {
        run.take(statement.text);
    } catch (DatabaseException const& failure) {
        throw failure.within(scriptOperation, "statement " + std::to_string(statement.number) + " (line " +
                                                  std::to_string(statement.line) + ")");
    }
}

} // namespace Vellum::Database
