#include "foundation/SharedMutex.h"

namespace Vellum {
namespace {

constexpr int spins = 128; // about a microsecond: longer than most holds, shorter than a sleep in the kernel

void relax() {
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#endif
}

} // namespace

void SharedMutex::lockSharedSlowly() {
    for (int spin = 0;; ++spin) {
        std::uint32_t seen = m_readers.load(std::memory_order_relaxed);
        if ((seen & claimed) == 0) {
            if (m_readers.compare_exchange_weak(seen, seen + 1, std::memory_order_acquire)) {
                return;
            }
        } else if (spin < spins) {
            relax();
        } else {
            // Announce first, look again, then sleep: yieldClaim() clears the bit before it looks for sleepers.
            m_sleepingReaders.fetch_add(1, std::memory_order_seq_cst);
            seen = m_readers.load(std::memory_order_seq_cst);
            if ((seen & claimed) != 0) {
                m_readers.wait(seen, std::memory_order_relaxed);
            }
            m_sleepingReaders.fetch_sub(1, std::memory_order_relaxed);
        }
    }
}

void SharedMutex::enterSlowly() {
    for (int spin = 0; spin < spins; ++spin) {
        std::uint32_t expected = 0;
        if (m_gate.load(std::memory_order_relaxed) == 0 &&
            m_gate.compare_exchange_weak(expected, 1, std::memory_order_acquire)) {
            return;
        }
        relax();
    }
    constexpr int patience = 1; // times of waking in vain
    bool impatient = false;
    m_sleepers.fetch_add(1, std::memory_order_relaxed);
    for (int woken = 0;;) {
        std::uint32_t seen = m_gate.load(std::memory_order_relaxed);
        if (seen == 0 || seen == 3) {
            if (m_gate.compare_exchange_weak(seen, 2, std::memory_order_acquire)) {
                break;
            }
        } else if (seen == 2 || m_gate.compare_exchange_weak(seen, 2, std::memory_order_relaxed)) {
            if (woken > patience && !impatient) {
                impatient = true;
                m_impatient.fetch_add(1, std::memory_order_relaxed);
            }
            m_gate.wait(2, std::memory_order_relaxed);
            ++woken;
        }
    }
    m_impatient.fetch_sub(impatient ? 1 : 0, std::memory_order_relaxed);
    m_sleepers.fetch_sub(1, std::memory_order_relaxed);
}

bool SharedMutex::readersGoSoon() {
    for (int spin = 0; spin < spins; ++spin) {
        if ((m_readers.load(std::memory_order_acquire) & ~claimed) == 0) {
            return true;
        }
        relax();
    }
    yieldClaim();
    return false;
}

// New readers wait from the start, upgraders only when the last reader has gone.
void SharedMutex::lockBehindReaders() {
    std::lock_guard<std::mutex> const turn(m_turn);
    m_readers.fetch_or(pending, std::memory_order_acquire);
    awaitReaders();
    enter();
    m_readers.fetch_or(writer, std::memory_order_acquire);
    m_readers.fetch_and(~pending, std::memory_order_relaxed);
}

void SharedMutex::awaitReaders() {
    for (int spin = 0;; ++spin) {
        std::uint32_t const seen = m_readers.load(std::memory_order_acquire);
        if ((seen & ~claimed) == 0) {
            return;
        }
        if (spin < spins) {
            relax();
        } else {
            m_readers.wait(seen, std::memory_order_acquire);
        }
    }
}

} // namespace Vellum
