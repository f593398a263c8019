// Aligned columns for people, written while their rows still come.
#pragma once

#include "tools/vellumctl/Output.h"

#include <string>
#include <string_view>
#include <vector>

namespace Vellum::Tools {

// The first rows are kept until their columns are known; later rows keep to these columns, and one that does not fit
// shifts what is right of it in its own line only. So the columns that may be long stand last.
class Table {
  public:
    static constexpr std::size_t rowsMeasured = 200;

    // `output` is borrowed. `header` false: no line of titles.
    Table(Output& output, std::vector<std::string> titles, bool header);

    // One cell for each title; a cell holds no control characters.
    void row(std::vector<std::string> cells);
    // Writes the rows that are still kept. A table without rows is only its header.
    void finish();

  private:
    void measure(std::vector<std::string> const& cells);
    void write(std::vector<std::string> const& cells);
    void writeKept();

    Output& m_output;
    std::vector<std::string> m_titles;
    bool m_header;
    bool m_measuring = true;
    std::vector<std::size_t> m_widths; // columns on the terminal
    std::vector<std::vector<std::string>> m_kept;
};

// Characters of a UTF-8 text; good enough for the columns that it takes.
std::size_t columnsOf(std::string_view text);

} // namespace Vellum::Tools
