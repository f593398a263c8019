// How durations are sorted into buckets: two of them for each doubling, from 128 ns to 8.6 s.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>

namespace Vellum::Daemon::DurationBuckets {

inline constexpr unsigned int lowestBits = 7; // the first bucket ends at 2^7 ns
inline constexpr unsigned int doublings = 26;
inline constexpr std::size_t count = 1 + 2 * std::size_t{doublings} + 1; // the last one has no end

// The last nanosecond that belongs to a bucket other than the last one.
constexpr std::uint64_t upperNanoseconds(std::size_t bucket) {
    if (bucket == 0) {
        return std::uint64_t{1} << lowestBits;
    }
    std::uint64_t const begin = std::uint64_t{1} << (lowestBits + (bucket - 1) / 2);
    return bucket % 2 == 1 ? begin + begin / 2 : begin * 2;
}

constexpr std::size_t of(std::uint64_t nanoseconds) {
    std::uint64_t const value = nanoseconds == 0 ? 0 : nanoseconds - 1; // a bucket includes its upper end
    auto const bits = static_cast<unsigned int>(std::bit_width(value));
    if (bits <= lowestBits) {
        return 0;
    }
    std::size_t const doubling = bits - lowestBits - 1;
    std::size_t const bucket = 1 + 2 * doubling + ((value >> (bits - 2)) & 1U);
    return bucket < count - 1 ? bucket : count - 1;
}

} // namespace Vellum::Daemon::DurationBuckets
