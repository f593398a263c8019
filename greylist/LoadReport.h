// How the last load of the greylist's tables went.
#pragma once

#include "foundation/database/LoadReport.h"

namespace Vellum::GreyList {

struct LoadReport {
    using Half = Database::LoadReport;
    Half tuples;
    Half exemptions;

    // Every half that was ever tried holds what its table held.
    bool complete() const { return tuples.loaded && exemptions.loaded; }

    // The process's report. Thread-safe.
    static LoadReport last();
    static void setTuples(Half const& half);
    static void setExemptions(Half const& half);
};

} // namespace Vellum::GreyList
