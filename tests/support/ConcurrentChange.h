// What may go on beside something that holds a lock, and what waits for it.
#pragma once

#include <atomic>
#include <functional>
#include <thread>
#include <utility>

namespace Vellum {

// A change on a thread of its own, begun at a moment that the test chooses.
class ConcurrentChange {
  public:
    // `waits` tells that the change waits for a lock; where it never does, the change must come to its end by itself.
    ConcurrentChange(std::function<bool()> waits, std::function<void()> change)
        : m_waits(std::move(waits)), m_change(std::move(change)) {}
    ~ConcurrentChange() { join(); }
    ConcurrentChange(ConcurrentChange const&) = delete;
    ConcurrentChange& operator=(ConcurrentChange const&) = delete;

    // Begins it, unless that was done before, and answers once it is done or waits.
    void begin() {
        if (m_thread.joinable()) {
            return;
        }
        m_thread = std::thread([this] {
            m_change();
            m_done = true;
        });
        while (!m_done && !m_waits()) {
            std::this_thread::yield();
        }
    }
    bool isDone() const { return m_done; }
    void join() {
        if (m_thread.joinable()) {
            m_thread.join();
        }
    }

  private:
    std::function<bool()> const m_waits;
    std::function<void()> const m_change;
    std::atomic<bool> m_done{false};
    std::thread m_thread;
};

} // namespace Vellum
