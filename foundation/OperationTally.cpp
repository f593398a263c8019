#include "foundation/OperationTally.h"

#include <ctime>
#include <exception>

namespace Vellum {

OperationTally& OperationTally::instance() {
    static OperationTally& tally = *new OperationTally;
    return tally;
}

void OperationTally::note(Operation operation, std::string const& of, bool succeeded, std::chrono::nanoseconds time,
                          long startedAt) {
    Synchronized const hold(m_lock);
    OperationTotals& totals = m_totals[{operation, of}];
    ++(succeeded ? totals.succeeded : totals.failed);
    totals.time += time;
    totals.lastTime = time;
    if (succeeded) {
        totals.lastSuccess = startedAt;
    }
}

std::map<std::string, OperationTotals> OperationTally::all(Operation operation) const {
    std::map<std::string, OperationTotals> found;
    Synchronized const hold(m_lock);
    for (auto const& [key, totals] : m_totals) {
        if (key.first == operation) {
            found.emplace(key.second, totals);
        }
    }
    return found;
}

TalliedOperation::~TalliedOperation() {
    auto const time = OperationTally::Clock::now() - m_start;
    auto const seconds = std::chrono::duration_cast<std::chrono::seconds>(time).count();
    try {
        OperationTally::instance().note(m_operation, m_of, m_succeeded, time, std::time(nullptr) - seconds);
    } catch (std::exception const&) {
        // no memory: one less in a statistic
    }
}

} // namespace Vellum
