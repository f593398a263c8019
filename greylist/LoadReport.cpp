#include "greylist/LoadReport.h"

#include "foundation/Latest.h"

namespace Vellum::GreyList {
namespace {

Latest<LoadReport>& kept() {
    static Latest<LoadReport>& theReport = *new Latest<LoadReport>; // detached threads may outlive main()
    return theReport;
}

} // namespace

LoadReport LoadReport::last() {
    return kept().get();
}

void LoadReport::setTuples(Half const& half) {
    kept().update([&](LoadReport& report) {
        report.tuples = half;
        report.tupleLoads += half.loaded ? 1 : 0;
    });
}

void LoadReport::setExemptions(Half const& half) {
    kept().update([&](LoadReport& report) { report.exemptions = half; });
}

} // namespace Vellum::GreyList
