// How the last load of the greylist's tables went.
#pragma once

#include "foundation/database/LoadReport.h"

#include <cstdint>

namespace Vellum::GreyList {

struct LoadReport {
    using Half = Database::LoadReport;
    Half tuples;
    Half exemptions;
    std::uint64_t tupleLoads = 0; // how often the tuples were loaded, since the start

    // Every half that was ever tried holds what its table held.
    bool complete() const { return tuples.loaded && exemptions.loaded; }

    // The process's report. Thread-safe.
    static LoadReport last();
    static void setTuples(Half const& half);
    static void setExemptions(Half const& half);
};

} // namespace Vellum::GreyList
