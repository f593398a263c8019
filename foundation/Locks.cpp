#include "foundation/Locks.h"

#include <chrono>
#include <thread>

namespace Vellum {

void Semaphore::acquire(unsigned int n) {
    std::unique_lock<std::mutex> holding(m_mutex);
    m_released.wait(holding, [&] { return m_count >= n; });
    m_count -= n;
}

void Semaphore::release(unsigned int n) {
    {
        std::lock_guard<std::mutex> const holding(m_mutex);
        m_count += n;
    }
    m_released.notify_all(); // all: waiters want different numbers of units
}

AutoSemaphore::AutoSemaphore(Semaphore& semaphore, int n)
    : m_semaphore(semaphore), m_units(n < 1 ? 0 : static_cast<unsigned int>(n)) {
    m_semaphore.acquire(m_units);
}

AutoSemaphore::~AutoSemaphore() {
    m_semaphore.release(m_units);
}

void sleepFor(unsigned int seconds, unsigned int milliseconds) {
    std::this_thread::sleep_for(std::chrono::seconds(seconds) + std::chrono::milliseconds(milliseconds));
}

} // namespace Vellum
