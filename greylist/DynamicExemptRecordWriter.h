// Writes dynamic exemptions as the value tuples of an INSERT.
#pragma once

#include "greylist/DynamicExemptId.h"
#include "greylist/Status.h"

#include <ostream>

namespace Vellum::GreyList {

class DynamicExemptRecordWriter {
  public:
    explicit DynamicExemptRecordWriter(std::ostream& out) : m_out(out) {} // borrowed

    // Writes "\n('mask', 'domain', firstSeen,expiry)", after a comma unless it is the first of its INSERT. The domain
    // is written as it is, without escaping: whoever writes a script sees to it that only domains come here that need
    // none.
    void operator()(DynamicExemptId const& id, Status const& status);

    // True until the next tuple is written; a caller that begins an INSERT sets it.
    bool first = true;

  private:
    std::ostream& m_out;
};

} // namespace Vellum::GreyList
