// A result of one row that a test made up.
#pragma once

#include "foundation/database/RowParser.h"
#include "foundation/database/StoredResult.h"
#include "fuzz/Parsed.h"

#include <string>
#include <utility>
#include <vector>

namespace Vellum::Fuzz {

class OneRow : public Database::StoredResult {
  public:
    // A value that is "\N" is SQL NULL.
    explicit OneRow(std::vector<std::string> values) : m_values(std::move(values)) {
        for (std::string& value : m_values) {
            m_row.push_back(isNull(value) ? nullptr : value.data());
        }
    }

    long rows() const override { return 1; }
    int columns() const override { return static_cast<int>(m_values.size()); }
    char** row(long index) override { return index == 0 ? m_row.data() : nullptr; }
    unsigned long length(int column) const override {
        if (column < 0 || column >= columns()) {
            return 0;
        }
        std::string const& value = m_values[static_cast<std::size_t>(column)];
        return isNull(value) ? 0 : value.size();
    }

    // The row as a `Row`; null when it is refused.
    template <class Row>
    Ref<Database::RowImpl> parsed() {
        Database::RowContainer rows;
        Database::FeRowParser<Row> parser(rows);
        accepted([&] {
            parser.parse(nullptr, static_cast<Database::StoredResult*>(this));
            return true;
        });
        return rows.rows().empty() ? Ref<Database::RowImpl>() : rows.rows().front();
    }

  private:
    static bool isNull(std::string const& value) { return value == "\\N"; }

    std::vector<std::string> m_values;
    std::vector<char*> m_row;
};

} // namespace Vellum::Fuzz
