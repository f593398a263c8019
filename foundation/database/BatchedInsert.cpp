#include "foundation/database/BatchedInsert.h"

#include <utility>

namespace Vellum::Database {

BatchedInsert::BatchedInsert(std::ostream& out, Texts texts) : m_out(out), m_texts(std::move(texts)) {}

bool BatchedInsert::beforeRow() {
    bool const begins = m_rows % rowsPerStatement == 0;
    if (!begins) {
        m_out.write(m_texts.separator.data(), static_cast<std::streamsize>(m_texts.separator.size()));
    } else {
        if (m_rows != 0) {
            m_out << m_texts.close;
        }
        m_out << m_texts.open;
    }
    ++m_rows;
    return begins;
}

void BatchedInsert::finish() {
    if (m_rows != 0) {
        m_out << m_texts.end;
    }
}

} // namespace Vellum::Database
