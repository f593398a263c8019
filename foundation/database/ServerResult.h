// A result that the server has sent.
#pragma once

#include "foundation/database/StoredResult.h"

#include <mysql.h>

namespace Vellum::Database {

// Owns the client library's result and remembers which row is the current one: the library itself can only walk from
// the first row to a given index, which over all rows of a large result would take for ever.
class ServerResult final : public StoredResult {
  public:
    explicit ServerResult(MYSQL_RES* result) : m_result(result) {}
    ~ServerResult() override { mysql_free_result(m_result); }

    long rows() const override { return static_cast<long>(mysql_num_rows(m_result)); }
    int columns() const override { return static_cast<int>(mysql_num_fields(m_result)); }
    char** row(long index) override {
        if (index < 0 || index >= rows()) {
            return nullptr;
        }
        if (index != m_next) {
            mysql_data_seek(m_result, static_cast<unsigned long long>(index));
        }
        m_next = index + 1;
        MYSQL_ROW const fetched = mysql_fetch_row(m_result);
        m_lengths = mysql_fetch_lengths(m_result); // once for each row: it walks all columns
        return fetched;
    }
    unsigned long length(int column) const override {
        return m_lengths == nullptr || column < 0 || column >= columns() ? 0 : m_lengths[column];
    }

  private:
    MYSQL_RES* m_result;
    long m_next = 0;                    // index of the row that the library would fetch now
    unsigned long* m_lengths = nullptr; // of the current row, null before the first
};

} // namespace Vellum::Database
