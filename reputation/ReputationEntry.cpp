#include "reputation/ReputationEntry.h"

#include "reputation/ScoreCalculator.h"

#include <algorithm>
#include <ctime>

namespace Vellum::Reputation {
namespace {

constexpr std::uint32_t scoredSeconds = scoredPeriods * secondsPerPeriod;

using Record = Entry::Record;
using Type = Entry::AttributeType;

std::uint32_t Record::*counterOf(Type type) {
    static constexpr std::uint32_t Record::*counters[Record::slots] = {
        &Record::messageCount, &Record::recipients, &Record::invalidRecipients, &Record::infected, &Record::spam,
        &Record::extraTotal,   &Record::extraHits,  &Record::extraVolume,       &Record::flagged,
    };
    auto const slot = static_cast<std::size_t>(type);
    return slot < Record::slots ? counters[slot] : nullptr;
}

void raise(Record& record, Type type, std::uint32_t amount) {
    std::uint32_t Record::*const counter = counterOf(type);
    if (counter == nullptr) {
        return;
    }
    std::uint32_t& value = record.*counter;
    value += amount;
    switch (type) {
    case Type::MessageCount:
    case Type::Recipients:
        break;
    case Type::InvalidRecipients:
        value = std::min(value, record.recipients);
        break;
    case Type::Flagged:
        value = std::max(value, record.messageCount); // upwards: a flagged hour is flagged in full
        break;
    default:
        value = std::min(value, record.messageCount);
    }
}

void lower(Record& record, Type type, std::uint32_t amount) {
    std::uint32_t Record::*const counter = counterOf(type);
    if (counter == nullptr) {
        return;
    }
    record.*counter -= std::min(record.*counter, amount);
    if (type == Type::Recipients) {
        record.invalidRecipients = std::min(record.invalidRecipients, record.recipients);
    }
}

} // namespace

SharedMutex Entry::s_lock;

void Entry::state(ReputationState state) {
    ExclusiveLock const hold(s_lock);
    m_state.store(state, std::memory_order_relaxed);
}

void Entry::prefetchRecords() const {
    constexpr std::size_t line = 64;
    auto const* const first = reinterpret_cast<char const*>(m_records.empty() ? nullptr : &*m_records.begin());
    std::size_t const bytes = std::min<std::size_t>(m_records.size(), scoredPeriods) * sizeof(Records::value_type);
    for (std::size_t at = 0; at < bytes; at += line) {
        __builtin_prefetch(first + at);
    }
}

long Entry::lastModified() const {
    long stored = m_lastModified.load(std::memory_order_relaxed);
    if (stored != 0) {
        return stored;
    }
    std::int64_t const newest = m_newestPeriod.load(std::memory_order_relaxed);
    if (newest == none) {
        return 0;
    }
    // A counter that changes right now is not to be forgotten over it.
    long const start = newest * static_cast<long>(secondsPerPeriod);
    return m_lastModified.compare_exchange_strong(stored, start, std::memory_order_relaxed) ? start : stored;
}

std::uint32_t Entry::messageCount(long now) const {
    long const at = now != 0 ? now : static_cast<long>(std::time(nullptr));
    SharedLock const hold(s_lock);
    auto const found = m_records.find(static_cast<std::uint32_t>(at / secondsPerPeriod));
    return found == m_records.end() ? 0 : found->second.messageCount;
}

void Entry::add(unsigned int period, Record const& record) {
    ExclusiveLock const hold(s_lock);
    m_records.insert_or_assign(period, record);
    noteRange();
}

void Entry::increment(AttributeType type, unsigned int period, unsigned int amount) const {
    ExclusiveLock const hold(s_lock);
    auto const [found, isNew] = m_records.try_emplace(period, 0, 0, 0, 0, 0);
    if (isNew) {
        noteRange();
    }
    changed();
    raise(found->second, type, amount);
}

void Entry::decrement(AttributeType type, unsigned int period, unsigned int amount) const {
    ExclusiveLock const hold(s_lock);
    auto const found = m_records.find(period);
    if (found != m_records.end()) {
        changed();
        lower(found->second, type, amount);
    }
}

std::uint32_t Entry::score() const {
    return scoreAndDrop(std::time(nullptr));
}

std::uint32_t Entry::scoreAndDrop(long now) const {
    auto const clock = static_cast<std::uint32_t>(now);
    dropBefore((clock - scoredSeconds) / secondsPerPeriod + 1);
    SharedLock const hold(s_lock);
    return scoreFrom(clock / secondsPerPeriod, 0);
}

std::uint32_t Entry::score(long now, unsigned int firstPeriod) const {
    return scoreFrom(static_cast<std::uint32_t>(now / static_cast<long>(secondsPerPeriod)), firstPeriod);
}

std::uint32_t Entry::firstPeriodAt(long now) {
    return static_cast<std::uint32_t>((now - static_cast<long>(scoredSeconds)) / static_cast<long>(secondsPerPeriod) +
                                      1);
}

void Entry::changed() const {
    m_lastModified.store(std::time(nullptr), std::memory_order_relaxed);
}

void Entry::noteRange() const {
    m_oldestPeriod.store(m_records.empty() ? none : std::int64_t{m_records.begin()->first}, std::memory_order_relaxed);
    m_newestPeriod.store(m_records.empty() ? none : std::int64_t{m_records.rbegin()->first}, std::memory_order_relaxed);
}

void Entry::dropBefore(std::uint32_t first) const {
    std::int64_t const oldest = m_oldestPeriod.load(std::memory_order_relaxed);
    if (oldest == none || oldest >= std::int64_t{first}) {
        return;
    }
    ExclusiveLock const hold(s_lock);
    m_records.erase(m_records.begin(), m_records.lower_bound(first));
    noteRange();
}

std::uint32_t Entry::scoreFrom(std::uint32_t current, std::uint32_t firstPeriod) const {
    ScoreCalculator calculator(current);
    for (auto at = m_records.lower_bound(firstPeriod); at != m_records.end(); ++at) {
        calculator.take(at->first, at->second);
    }
    return calculator.score();
}

} // namespace Vellum::Reputation
