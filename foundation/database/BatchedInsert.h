// The INSERT statements of a backup script.
#pragma once

#include <cstdint>
#include <ostream>
#include <string>
#include <string_view>

namespace Vellum::Database {

// Writes what stands around and between the rows of one table: at most 1000 rows for each INSERT, a commit after each.
//
//   BatchedInsert batches(out, {.open = "INSERT INTO grey_list VALUES", .end = ";\n"});
//   for (...) {
//       batches.beforeRow();
//       out << "\n('" << ... << ")";
//   }
//   batches.finish();
//
// Only a bounded number of rows, because one statement must fit the server's packet limit.
class BatchedInsert {
  public:
    static constexpr std::uint32_t rowsPerStatement = 1000;

    // What a family's scripts look like.
    struct Texts {
        std::string open;                   // begins a statement
        std::string separator = ",";        // between two rows of a statement
        std::string close = ";\ncommit;\n"; // between two statements
        std::string end = ";\ncommit;\n";   // after the last row, when there was any
    };

    // The stream is borrowed; its error state is the caller's to check.
    BatchedInsert(std::ostream& out, Texts texts);

    // Writes what goes before the next row. True when that row begins a new statement.
    bool beforeRow();
    // The same for one who puts rows together elsewhere: what to write there before the next row. Valid until the next
    // call; at most longestBeforeRow() bytes.
    std::string_view textBeforeRow();
    std::size_t longestBeforeRow() const { return m_nextStatement.size() + m_texts.separator.size(); }
    // After the last row; without any row nothing is written.
    void finish();

    std::uint64_t rows() const { return m_rows; }

  private:
    std::ostream& m_out;
    Texts m_texts;
    std::string const m_nextStatement; // ends one and begins another
    std::uint64_t m_rows = 0;
};

} // namespace Vellum::Database
