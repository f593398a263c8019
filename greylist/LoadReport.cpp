#include "greylist/LoadReport.h"

#include "foundation/Latest.h"

namespace Vellum::GreyList {

LoadReport LoadReport::last() {
    return latestOfProcess<LoadReport>().get();
}

void LoadReport::setTuples(Half const& half) {
    latestOfProcess<LoadReport>().update([&](LoadReport& report) {
        report.tuples = half;
        report.tupleLoads += half.loaded ? 1 : 0;
    });
}

void LoadReport::setExemptions(Half const& half) {
    latestOfProcess<LoadReport>().update([&](LoadReport& report) { report.exemptions = half; });
}

} // namespace Vellum::GreyList
