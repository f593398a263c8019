// Counts durations in buckets 1.6 % wide, so that millions of them cost no memory to speak of.
#pragma once

#include <array>
#include <bit>
#include <cstdint>

namespace Vellum::Bench {

class LatencyHistogram {
  public:
    void add(std::uint64_t nanoseconds) {
        ++m_counts[bucketOf(nanoseconds)];
        ++m_total;
    }

    std::uint64_t total() const { return m_total; }

    // The duration, in microseconds, that this share of them does not exceed: 0.99 for the 99th percentile.
    double quantile(double share) const {
        auto const wanted = static_cast<std::uint64_t>(share * static_cast<double>(m_total));
        std::uint64_t seen = 0;
        for (std::size_t i = 0; i < m_counts.size(); ++i) {
            seen += m_counts[i];
            if (seen > wanted) {
                return static_cast<double>(upperEndOf(i)) / 1000;
            }
        }
        return 0;
    }

  private:
    // The highest bit and the six below it.
    static constexpr unsigned int subBits = 6;
    static constexpr std::uint64_t subBuckets = 1U << subBits;

    static std::size_t bucketOf(std::uint64_t value) {
        if (value < subBuckets) {
            return value;
        }
        auto const shift = static_cast<unsigned int>(std::bit_width(value)) - subBits - 1;
        return (shift + 1) * subBuckets + ((value >> shift) - subBuckets);
    }

    static std::uint64_t upperEndOf(std::size_t bucket) {
        if (bucket < subBuckets) {
            return bucket;
        }
        auto const shift = bucket / subBuckets - 1;
        return ((bucket % subBuckets + subBuckets + 1) << shift) - 1;
    }

    std::array<std::uint64_t, (65 - subBits) * subBuckets> m_counts{};
    std::uint64_t m_total = 0;
};

} // namespace Vellum::Bench
