#include "daemon/ScriptFacts.h"

#include "daemon/OpenedScript.h"
#include "foundation/Exception.h"
#include "greylist/GlRecordDatabase.h"
#include "mmsreputation/MMSReputationDatabase.h"
#include "reputation/ReputationDatabase.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <string_view>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>
#include <vector>

namespace Vellum::Daemon {
namespace {

constexpr std::size_t pieceBytes = 256U << 10;
constexpr std::size_t longestLine = 4096; // what goes beyond is no row, and its end is not looked at

[[noreturn]] void fail(std::string const& path, std::string const& reason) {
    throw Exception("ScriptFacts::of", Exception::failure, "ScriptFacts").stringParameter(path + ": " + reason);
}

std::string reasonOf(int error) {
    return std::generic_category().message(error);
}

// Takes the lines of a script one after the other.
class LineCounter {
  public:
    explicit LineCounter(ScriptFacts& facts) : m_facts(facts) {}

    void take(std::string_view line) {
        if (line.empty()) {
            return;
        }
        if (line.substr(0, lockTables.size()) == lockTables) {
            m_locked = true;
            std::string_view const rest = line.substr(lockTables.size());
            std::string_view const first = rest.substr(0, rest.find(' '));
            m_facts.ofReputation = first == Reputation::recordsTable;
            m_facts.ofEndpoints = first == MMSReputation::recordTable;
            bool const isKnown = m_facts.ofReputation || m_facts.ofEndpoints || first == GreyList::greyListTable;
            m_facts.otherTable = isKnown ? "" : first;
        }
        m_facts.complete = line == "UNLOCK TABLES;" || (line == "commit;" && !m_locked);
        if (line.substr(0, 2) == "('") {
            takeRow(line);
        } else if (line.substr(0, insertInto.size()) == insertInto) {
            line.remove_prefix(insertInto.size());
            m_rows = rowsOf(line.substr(0, line.find(' ')));
        }
    }

  private:
    static constexpr std::string_view insertInto = "INSERT INTO ";
    static constexpr std::string_view lockTables = "LOCK TABLES ";

    std::uint64_t* rowsOf(std::string_view table) {
        if (table == GreyList::greyListTable) {
            return &m_facts.tuples;
        }
        if (table == Reputation::recordsTable) {
            return &m_facts.reputations;
        }
        if (table == MMSReputation::recordTable) {
            return &m_facts.slices;
        }
        return table == GreyList::autoExemptTable ? &m_facts.exemptions : nullptr;
    }
    // "('192.0.2.0/24', ..., 'x@example.org', 1700000000,1700014400),": the first number is the creation time.
    void takeRow(std::string_view line) {
        constexpr std::string_view endOfTexts = "', ";
        std::size_t const texts = line.rfind(endOfTexts);
        if (m_rows == nullptr || texts == std::string_view::npos) {
            return;
        }
        ++*m_rows;
        if (m_rows == &m_facts.reputations || m_rows == &m_facts.slices) {
            return; // their number behind the texts is an hour, or a slice
        }
        long created = 0;
        std::from_chars(line.data() + texts + endOfTexts.size(), line.data() + line.size(), created);
        m_facts.newest = std::max(m_facts.newest, created);
    }

    ScriptFacts& m_facts;
    bool m_locked = false;           // the tables are locked, so only an unlock ends the script
    std::uint64_t* m_rows = nullptr; // of the table that the last INSERT named
};

// Cuts a stream of pieces into lines, and a line into what fits.
class LineCutter {
  public:
    explicit LineCutter(LineCounter& counter) : m_counter(counter) {}

    void take(std::string_view piece) {
        for (std::size_t end = piece.find('\n'); end != std::string_view::npos; end = piece.find('\n')) {
            if (m_begun.empty()) {
                m_counter.take(piece.substr(0, std::min(end, longestLine)));
            } else {
                keep(piece.substr(0, end));
                finish();
            }
            piece.remove_prefix(end + 1);
        }
        keep(piece);
    }
    void finish() {
        m_counter.take(m_begun);
        m_begun.clear();
    }

  private:
    void keep(std::string_view part) { m_begun.append(part.substr(0, longestLine - m_begun.size())); }

    LineCounter& m_counter;
    std::string m_begun; // a line whose end has not been read yet; at most longestLine of it
};

} // namespace

ScriptFacts ScriptFacts::of(OpenedScript const& script) {
    int const file = script.descriptor();
    struct stat status {};
    if (::fstat(file, &status) != 0) {
        fail(script.path(), reasonOf(errno));
    }
    off_t done = 0;
    std::vector<char> piece(pieceBytes);
    ScriptFacts facts = ofText([&] {
        ssize_t length = 0;
        do {
            length = ::pread(file, piece.data(), piece.size(), done);
        } while (length < 0 && errno == EINTR);
        if (length < 0) {
            fail(script.path(), reasonOf(errno));
        }
        done += length;
        return std::string_view(piece.data(), static_cast<std::size_t>(length));
    });
    facts.bytes = static_cast<std::uint64_t>(status.st_size);
    facts.modified = status.st_mtime;
    return facts;
}

ScriptFacts ScriptFacts::ofText(std::function<std::string_view()> const& next) {
    ScriptFacts facts;
    LineCounter counter(facts);
    LineCutter cutter(counter);
    for (std::string_view piece = next(); !piece.empty(); piece = next()) {
        cutter.take(piece);
    }
    cutter.finish();
    return facts;
}

} // namespace Vellum::Daemon
