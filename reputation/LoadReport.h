// How the last load of sender reputation's tables went; both are loaded by one query.
#pragma once

#include "foundation/database/LoadReport.h"

namespace Vellum::Reputation {

struct LoadReport : Vellum::Database::LoadReport {
    // The process's report: what Database::read() did last. Thread-safe.
    static LoadReport last();
    static void set(LoadReport const& report);
};

} // namespace Vellum::Reputation
