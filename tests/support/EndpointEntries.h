// Subscribers and their records, for tests.
#pragma once

#include "foundation/MSISDN.h"
#include "mmsreputation/Cache.h"

#include <map>
#include <string>
#include <utility>
#include <vector>

namespace Vellum::MMSReputation {

using AttributeType = Entry::AttributeType;

// Slice to (spam, infected).
using Counts = std::map<std::uint32_t, std::pair<std::uint32_t, std::uint32_t>>;

inline MSISDN subscriber(unsigned int n) {
    return MSISDN(std::to_string(15555550000UL + n));
}

inline Counts countsOf(Entry const& entry) {
    SharedLock const hold(Entry::s_mutex);
    Counts counts;
    for (auto const& [slice, record] : entry.records()) {
        counts[slice] = {record.spam, record.infected};
    }
    return counts;
}

inline std::vector<std::uint32_t> slicesOf(Entry const& entry) {
    std::vector<std::uint32_t> slices;
    for (auto const& [slice, counts] : countsOf(entry)) {
        slices.push_back(slice);
    }
    return slices;
}

// from, from + 1, ... to.
inline std::vector<std::uint32_t> range(std::uint32_t from, std::uint32_t to) {
    std::vector<std::uint32_t> numbers;
    for (std::uint32_t n = from; n <= to; ++n) {
        numbers.push_back(n);
    }
    return numbers;
}

inline bool holds(Cache const& cache, MSISDN const& number) {
    SharedLock const hold(cache.lock);
    return cache.lookup(number) != cache.end();
}

inline std::uint32_t sizeOf(Cache const& cache) {
    SharedLock const hold(cache.lock);
    return cache.sizeNoLock();
}

} // namespace Vellum::MMSReputation
