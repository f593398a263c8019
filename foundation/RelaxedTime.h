// A time that one thread may write while others read it: either value is true, neither is torn.
#pragma once

#include <atomic>

namespace Vellum {

// Seconds since the epoch, signed 64-bit. Copies and assigns like a plain number.
class RelaxedTime {
  public:
    RelaxedTime(long seconds = 0) : m_seconds(seconds) {}
    RelaxedTime(RelaxedTime const& other) : m_seconds(long(other)) {}
    RelaxedTime& operator=(RelaxedTime const& other) { return *this = long(other); }
    RelaxedTime& operator=(long seconds) {
        m_seconds.store(seconds, std::memory_order_relaxed);
        return *this;
    }
    operator long() const { return m_seconds.load(std::memory_order_relaxed); }

  private:
    std::atomic<long> m_seconds;
};
static_assert(sizeof(RelaxedTime) == 8);

} // namespace Vellum
