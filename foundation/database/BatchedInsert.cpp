#include "foundation/database/BatchedInsert.h"

#include <utility>

namespace Vellum::Database {

BatchedInsert::BatchedInsert(std::ostream& out, Texts texts)
    : m_out(out), m_texts(std::move(texts)), m_nextStatement(m_texts.close + m_texts.open) {}

bool BatchedInsert::beforeRow() {
    bool const begins = m_rows % rowsPerStatement == 0;
    std::string_view const text = textBeforeRow();
    m_out.write(text.data(), static_cast<std::streamsize>(text.size()));
    return begins;
}

std::string_view BatchedInsert::textBeforeRow() {
    std::uint64_t const row = m_rows++;
    if (row % rowsPerStatement != 0) {
        return m_texts.separator;
    }
    return row == 0 ? m_texts.open : m_nextStatement;
}

void BatchedInsert::finish() {
    if (m_rows != 0) {
        m_out << m_texts.end;
    }
}

} // namespace Vellum::Database
