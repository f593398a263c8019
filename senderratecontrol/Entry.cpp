#include "senderratecontrol/Entry.h"

#include <boost/make_shared.hpp>

#include <algorithm>

namespace Vellum::SenderRateControl {
namespace {

// The counter that a type selects, or none.
std::uint32_t Entry::Record::*counterOf(Entry::AttributeType type) {
    switch (type) {
    case Entry::Attribute1:
        return &Entry::Record::count1;
    case Entry::Attribute2:
        return &Entry::Record::count2;
    case Entry::Attribute3:
        return &Entry::Record::count3;
    case Entry::Attribute4:
        return &Entry::Record::count4;
    case Entry::Attribute5:
        return &Entry::Record::count5;
    }
    return nullptr;
}

} // namespace

SharedMutex Entry::s_lock;
Mutex Entry::s_recordsLock;

void Entry::increment(AttributeType type, unsigned int period, unsigned int amount) const {
    ExclusiveLock const changing(s_lock);
    Synchronized const touching(s_recordsLock);
    Record& record = m_records[period];
    if (auto const counter = counterOf(type); counter != nullptr) {
        record.*counter += amount;
    }
}

void Entry::add(unsigned int period, Record const& record) {
    ExclusiveLock const changing(s_lock);
    Synchronized const touching(s_recordsLock);
    m_records[period] = record;
}

void Entry::totals(long now, SenderRateControlRecord& out) const {
    UpgradeLock const totalling(s_lock);
    totalsNoLock(firstPeriodAt(now), out);
}

void Entry::totalsNoLock(unsigned int firstPeriod, SenderRateControlRecord& out) const {
    Synchronized const touching(s_recordsLock);
    m_records.erase(m_records.begin(), m_records.lower_bound(firstPeriod));
    for (auto const& [period, record] : m_records) {
        out.count1 += record.count1;
        out.count2 += record.count2;
        out.count3 += record.count3;
        out.count4 += record.count4;
        out.count5 += record.count5;
    }
}

std::size_t Entry::forget() {
    ExclusiveLock const changing(s_lock);
    Synchronized const touching(s_recordsLock);
    std::size_t const periods = m_records.size();
    m_records.clear();
    return periods;
}

void Entry::prefetchRecords(Entry const* const* entries, std::size_t count) {
    constexpr std::size_t most = 2 * periodsTotalled; // of which something may remain
    Synchronized const touching(s_recordsLock);
    for (std::size_t n = 0; n < count; ++n) {
        Records const& records = entries[n]->m_records;
        if (!records.empty()) {
            auto const* const first = reinterpret_cast<char const*>(&*records.begin());
            std::size_t const last = std::min(records.size(), most) * sizeof(Records::value_type) - 1;
            for (std::size_t line = 0; line < last; line += 64) {
                __builtin_prefetch(first + line);
            }
            __builtin_prefetch(first + last);
        }
    }
}

unsigned int Entry::firstPeriod() const {
    Synchronized const touching(s_recordsLock);
    return m_records.empty() ? 0 : m_records.begin()->first;
}

unsigned int Entry::lastPeriod() const {
    Synchronized const touching(s_recordsLock);
    return m_records.empty() ? 0 : m_records.rbegin()->first;
}

Entry::Records Entry::records() const {
    Synchronized const touching(s_recordsLock);
    return m_records;
}

void Entry::state(RateControlState state) {
    ExclusiveLock const changing(s_lock);
    m_state.store(state, std::memory_order_relaxed);
}

void Entry::blockedUntil(long time) {
    ExclusiveLock const changing(s_lock);
    m_blockedUntil = time;
}

void Entry::blockedReason(AttributeType reason) {
    ExclusiveLock const changing(s_lock);
    m_blockedReason.store(reason, std::memory_order_relaxed);
}

void Entry::reset() {
    m_blockedUntil = 0;
    m_blockedReason.store(AttributeType{}, std::memory_order_relaxed);
    m_state.store(RateControlState::normal, std::memory_order_relaxed);
}

RefEntry::RefEntry(bool create) : m_entry(create ? boost::make_shared<Entry>() : boost::shared_ptr<Entry>()) {}

} // namespace Vellum::SenderRateControl
