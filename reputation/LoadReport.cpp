#include "reputation/LoadReport.h"

#include "foundation/Latest.h"

namespace Vellum::Reputation {

LoadReport LoadReport::last() {
    return latestOfProcess<LoadReport>().get();
}

void LoadReport::set(LoadReport const& report) {
    latestOfProcess<LoadReport>().set(report);
}

} // namespace Vellum::Reputation
