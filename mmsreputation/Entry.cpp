#include "mmsreputation/Entry.h"

namespace Vellum::MMSReputation {

SharedMutex Entry::s_mutex;

Entry::Record const* Entry::increment(AttributeType type, std::uint32_t index) {
    UpgradeLock hold(s_mutex);
    auto record = m_records.find(index);
    if (record == m_records.end()) {
        hold.promote();
        m_records.try_emplace(index);
        while (m_records.size() > mostRecords) {
            m_records.erase(m_records.begin());
        }
        record = m_records.find(index);
        if (record == m_records.end()) { // older than all that are kept
            return nullptr;
        }
    }
    switch (type) {
    case AttributeType::infected:
        record->second.infected += 1;
        break;
    case AttributeType::spam:
        record->second.spam += 1;
        break;
    }
    return &record->second;
}

void Entry::add(Period const& period, Record const& record) VELLUM_NO_THREAD_SAFETY_ANALYSIS {
    m_records[period.index] = record;
}

void Entry::purgeRecords(std::uint32_t lowest) {
    m_records.erase(m_records.begin(), m_records.lower_bound(lowest));
}

std::uint32_t Entry::score(std::uint32_t index, bool lock) const VELLUM_NO_THREAD_SAFETY_ANALYSIS {
    if (!lock) {
        return _score(index);
    }
    SharedLock const hold(s_mutex);
    return _score(index);
}

std::uint32_t Entry::_score(std::uint32_t index) const {
    std::uint32_t const lowest = index - scoredBefore;
    std::uint32_t sum = 0;
    for (auto record = m_records.lower_bound(lowest); record != m_records.end(); ++record) {
        sum += record->second.spam + record->second.infected;
    }
    return sum;
}

} // namespace Vellum::MMSReputation
