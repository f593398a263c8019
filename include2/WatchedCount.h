// A number that is changed under a lock only, and may be read by anybody without it: the value is then that of a moment
// ago, and never torn. Costs its writers no more than a plain number does.
#pragma once

#include <atomic>

namespace Vellum {

template <class Number>
class WatchedCount {
  public:
    WatchedCount(Number number = 0) : m_number(number) {}
    WatchedCount& operator=(Number number) {
        m_number.store(number, std::memory_order_relaxed);
        return *this;
    }
    // One writer at a time, so nothing can come between reading and writing.
    WatchedCount& operator++() { return *this = Number(*this) + 1; }
    WatchedCount& operator--() { return *this = Number(*this) - 1; }
    operator Number() const { return m_number.load(std::memory_order_relaxed); }

  private:
    std::atomic<Number> m_number;
};

} // namespace Vellum
