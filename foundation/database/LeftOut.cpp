#include "foundation/database/LeftOut.h"

#include "foundation/Logger.h"
#include "foundation/RecordFormats.h"

#include <algorithm>

namespace Vellum::Database {

void LeftOut::add(std::string const& record, char const* reason) {
    if (++m_count <= shownOneByOne) {
        log(std::string(m_fate) + ": " + record + ": " + reason);
    }
}

void LeftOut::finish() const {
    if (m_count > shownOneByOne) {
        log(std::to_string(m_count - shownOneByOne) + " more " + m_kind + " were " + m_fate);
    }
}

void LeftOut::log(std::string text) const {
    std::replace(text.begin(), text.end(), '\0', '?'); // a domain may hold one, and would end the text there
    Logger::instance(false).log(m_logCode, 0, formatText, text.c_str());
}

} // namespace Vellum::Database
