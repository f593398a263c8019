// Memory that many connections share: bytes that may be taken, and are given back. Thread-safe.
#pragma once

#include <atomic>
#include <cstddef>

namespace Vellum::IPC {

class Budget {
  public:
    explicit Budget(std::size_t bytes) : m_left(bytes) {}

    // All of it or nothing.
    bool take(std::size_t bytes) {
        std::size_t left = m_left.load(std::memory_order_relaxed);
        do {
            if (left < bytes) {
                return false;
            }
        } while (!m_left.compare_exchange_weak(left, left - bytes, std::memory_order_relaxed));
        return true;
    }
    void give(std::size_t bytes) { m_left.fetch_add(bytes, std::memory_order_relaxed); }
    std::size_t left() const { return m_left.load(std::memory_order_relaxed); }

  private:
    std::atomic<std::size_t> m_left; // only a number; it guards no other data
};

} // namespace Vellum::IPC
