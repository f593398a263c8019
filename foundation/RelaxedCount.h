// A count that one thread raises while others read it: either value is true, neither is torn, and no raise is lost.
#pragma once

#include <atomic>
#include <cstdint>

namespace Vellum {

// Unsigned 32-bit; wraps silently. Copies and assigns like a plain number.
class RelaxedCount {
  public:
    RelaxedCount(std::uint32_t count = 0) : m_count(count) {}
    RelaxedCount(RelaxedCount const& other) : m_count(std::uint32_t(other)) {}
    RelaxedCount& operator=(RelaxedCount const& other) { return *this = std::uint32_t(other); }
    RelaxedCount& operator=(std::uint32_t count) {
        m_count.store(count, std::memory_order_relaxed);
        return *this;
    }
    RelaxedCount& operator+=(std::uint32_t more) {
        m_count.fetch_add(more, std::memory_order_relaxed);
        return *this;
    }
    operator std::uint32_t() const { return m_count.load(std::memory_order_relaxed); }

  private:
    std::atomic<std::uint32_t> m_count;
};
static_assert(sizeof(RelaxedCount) == 4);

} // namespace Vellum
