#include "tools/vellum-replay/Format.h"

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <sstream>

namespace Vellum::Tools {
namespace {

template <class... Values>
std::string format(char const* pattern, Values... values) {
    char text[64];
    std::snprintf(text, sizeof text, pattern, values...);
    return text;
}

} // namespace

std::string percent(std::uint64_t part, std::uint64_t whole) {
    return whole == 0 ? "-" : format("%.1f %%", 100.0 * static_cast<double>(part) / static_cast<double>(whole));
}

std::string utc(long time) {
    std::time_t const seconds = time;
    std::tm parts{};
    gmtime_r(&seconds, &parts);
    char text[64];
    std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &parts);
    return text;
}

std::string several(std::uint64_t count, std::string const& one) {
    return std::to_string(count) + ' ' + one + (count == 1 ? "" : "s");
}

void writeParagraph(std::ostream& out, std::string const& text) {
    constexpr std::size_t width = 100;
    std::istringstream words(text);
    std::size_t column = 0;
    for (std::string word; words >> word;) {
        bool const fits = column != 0 && column + 1 + word.size() <= width;
        out << (column == 0 ? " " : fits ? "" : "\n ") << ' ' << word;
        column = fits ? column + 1 + word.size() : 2 + word.size();
    }
    out << '\n';
}

void FigureTable::write(std::ostream& out) const {
    std::vector<std::size_t> widths(m_rows.front().size());
    for (auto const& row : m_rows) {
        for (std::size_t i = 0; i < row.size(); ++i) {
            widths[i] = std::max(widths[i], row[i].size());
        }
    }
    for (auto const& row : m_rows) {
        out << "  ";
        for (std::size_t i = 0; i + 1 < row.size(); ++i) {
            out << std::string(widths[i] - row[i].size(), ' ') << row[i] << "  ";
        }
        out << row.back() << '\n';
    }
}

} // namespace Vellum::Tools
