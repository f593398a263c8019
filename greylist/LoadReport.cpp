#include "greylist/LoadReport.h"

#include "foundation/Locks.h"

namespace Vellum::GreyList {
namespace {

Mutex reportLock;
LoadReport& report() VELLUM_REQUIRES(reportLock)
{
    static LoadReport& theReport = *new LoadReport; // detached threads may outlive main()
    return theReport;
}

} // namespace

LoadReport LoadReport::last() {
    Synchronized const hold(reportLock);
    return report();
}

void LoadReport::setTuples(Half const& half) {
    Synchronized const hold(reportLock);
    report().tuples = half;
}

void LoadReport::setExemptions(Half const& half) {
    Synchronized const hold(reportLock);
    report().exemptions = half;
}

} // namespace Vellum::GreyList
