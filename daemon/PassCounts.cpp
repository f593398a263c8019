#include "daemon/PassCounts.h"

#include <algorithm>

namespace Vellum::Daemon {

std::size_t PassCounts::count(GreyList::DynamicExemptId const& pair, std::uint64_t tuple, std::size_t most) {
    ExclusiveLock const hold(m_counts.lock);
    auto found = m_counts.findNoLock(pair);
    if (found == m_counts.end()) {
        if (most > 0) {
            m_counts.addNoLock(pair, {tuple});
        }
        return 1;
    }
    std::vector<std::uint64_t>& counted = found->second;
    if (std::find(counted.begin(), counted.end(), tuple) != counted.end()) {
        return counted.size();
    }
    if (counted.size() < most) {
        counted.push_back(tuple);
        return counted.size();
    }
    return counted.size() + 1;
}

std::size_t PassCounts::pairs() const {
    SharedLock const hold(m_counts.lock);
    return m_counts.sizeNoLock();
}

} // namespace Vellum::Daemon
