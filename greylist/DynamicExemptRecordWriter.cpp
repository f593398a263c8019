#include "greylist/DynamicExemptRecordWriter.h"

namespace Vellum::GreyList {

void DynamicExemptRecordWriter::operator()(DynamicExemptId const& id, Status const& status) {
    if (!first) {
        m_out << ",";
    }
    first = false;
    m_out << "\n('" << id->mask().asString() << "', '" << id->domain() << "', " << status.firstSeen << ","
          << long(status.expiry) << ")";
}

} // namespace Vellum::GreyList
