#include "tools/vellumctl/Table.h"

#include <algorithm>

namespace Vellum::Tools {
namespace {

constexpr std::size_t gap = 2;

} // namespace

std::size_t columnsOf(std::string_view text) {
    return static_cast<std::size_t>(
        std::count_if(text.begin(), text.end(), [](char c) { return (static_cast<unsigned char>(c) & 0xc0) != 0x80; }));
}

Table::Table(Output& output, std::vector<std::string> titles, bool header)
    : m_output(output), m_titles(std::move(titles)), m_header(header), m_widths(m_titles.size(), 0) {
    if (m_header) {
        measure(m_titles);
    }
}

void Table::row(std::vector<std::string> cells) {
    if (!m_measuring) {
        write(cells);
        return;
    }
    measure(cells);
    m_kept.push_back(std::move(cells));
    if (m_kept.size() == rowsMeasured) {
        writeKept();
    }
}

void Table::finish() {
    if (m_measuring) {
        writeKept();
    }
}

void Table::measure(std::vector<std::string> const& cells) {
    for (std::size_t column = 0; column < m_widths.size(); ++column) {
        m_widths[column] = std::max(m_widths[column], columnsOf(cells[column]));
    }
}

void Table::writeKept() {
    m_measuring = false;
    if (m_header) {
        write(m_titles);
    }
    for (std::vector<std::string> const& cells : m_kept) {
        write(cells);
    }
    m_kept.clear();
    m_kept.shrink_to_fit();
}

void Table::write(std::vector<std::string> const& cells) {
    std::string& text = m_output.buffer();
    for (std::size_t column = 0; column < cells.size(); ++column) {
        text += cells[column];
        if (column + 1 < cells.size()) {
            std::size_t const columns = columnsOf(cells[column]);
            text.append(gap + (m_widths[column] > columns ? m_widths[column] - columns : 0), ' ');
        }
    }
    text += '\n';
    m_output.written();
}

} // namespace Vellum::Tools
