#include "reputation/LoadReport.h"

#include "foundation/Latest.h"

namespace Vellum::Reputation {
namespace {

Latest<LoadReport>& kept() {
    static Latest<LoadReport>& theReport = *new Latest<LoadReport>; // detached threads may outlive main()
    return theReport;
}

} // namespace

LoadReport LoadReport::last() {
    return kept().get();
}

void LoadReport::set(LoadReport const& report) {
    kept().set(report);
}

} // namespace Vellum::Reputation
