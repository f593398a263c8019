// Numbers, times and tables as people read them.
#pragma once

#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

namespace Vellum::Tools {

std::string percent(std::uint64_t part, std::uint64_t whole);     // "12.3 %"; "-" of nothing
std::string utc(long time);                                       // "2026-01-05 08:00:00"
std::string several(std::uint64_t count, std::string const& one); // "1 rule", "2 rules"

// A paragraph in lines of at most 100 columns, each with two blanks before it.
void writeParagraph(std::ostream& out, std::string const& text);

// Cells in columns as wide as they need. The first row is the heading; all columns but the last are aligned right.
class FigureTable {
  public:
    explicit FigureTable(std::vector<std::string> heading) { add(std::move(heading)); }
    void add(std::vector<std::string> cells) { m_rows.push_back(std::move(cells)); }
    void write(std::ostream& out) const; // each row with two blanks before it

  private:
    std::vector<std::vector<std::string>> m_rows;
};

} // namespace Vellum::Tools
