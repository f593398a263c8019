// Rows that could not be played: how many, and the first of them with the reason.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace Vellum::Tools {

class SkippedRows {
  public:
    static constexpr std::size_t shown = 10;

    struct Row {
        std::size_t line; // counted from 1
        std::string reason;
    };

    void add(std::size_t line, std::string reason) {
        if (m_first.size() < shown) {
            m_first.push_back({line, std::move(reason)});
        }
        ++m_count;
    }
    std::size_t count() const { return m_count; }
    std::vector<Row> const& first() const { return m_first; }

  private:
    std::size_t m_count = 0;
    std::vector<Row> m_first;
};

} // namespace Vellum::Tools
