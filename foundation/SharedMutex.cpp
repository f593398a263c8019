#include "foundation/SharedMutex.h"

#include <chrono>
#include <climits>
#include <linux/futex.h>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>

namespace Vellum {
namespace {

constexpr int spins = 128;       // about a microsecond: longer than most holds, shorter than a sleep in the kernel
constexpr int spinsAtGate = 512; // who sleeps there may be handed the gate, and all others wait while he wakes up

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
                sleepWhile(m_readers, seen);
            }
            m_sleepingReaders.fetch_sub(1, std::memory_order_relaxed);
        }
    }
}

void SharedMutex::enterSlowly() {
    for (int spin = 0; spin < spinsAtGate; ++spin) {
        std::uint32_t expected = isFree;
        if (m_gate.load(std::memory_order_relaxed) == isFree &&
            m_gate.compare_exchange_weak(expected, isHeld, std::memory_order_acquire)) {
            return;
        }
        relax();
    }
    constexpr int patience = 1; // times of waking in vain
    bool impatient = false;
    m_sleepers.fetch_add(1, std::memory_order_relaxed);
    for (int woken = 0;;) {
        std::uint32_t seen = m_gate.load(std::memory_order_relaxed);
        if (seen == isFree || seen == isHandedToAnyone || (seen == isHanded && impatient)) {
            if (m_gate.compare_exchange_weak(seen, isWaitedFor, std::memory_order_acquire)) {
                break;
            }
        } else if (woken > patience && !impatient) {
            impatient = true;
            m_impatient.fetch_add(1, std::memory_order_relaxed);
        } else if (seen != isHeld || m_gate.compare_exchange_weak(seen, isWaitedFor, std::memory_order_relaxed)) {
            sleepWhile(m_gate, seen == isHanded ? isHanded : isWaitedFor);
            ++woken;
        }
    }
    m_impatient.fetch_sub(impatient ? 1 : 0, std::memory_order_relaxed);
    m_sleepers.fetch_sub(1, std::memory_order_relaxed);
}

// All are woken, always: one that was not woken in vain yet leaves the gate to the others and sleeps again, and while
// such a one is awake the gate need not be marked as waited for.
void SharedMutex::handOverToImpatient() {
    m_gate.store(isHanded, std::memory_order_release);
    wakeAll(m_gate);
}

// Where nobody sleeps on the gate, one who waits for it is awake, and any may take it.
void SharedMutex::handOverInTurn() {
    if (m_gate.exchange(isHandedToAnyone, std::memory_order_release) == isWaitedFor) {
        wakeOne(m_gate);
    }
    // Not asleep on the gate: waking this thread would be in place of waking one who waits for it.
    constexpr std::chrono::microseconds glance{20};
    while (m_gate.load(std::memory_order_relaxed) == isHandedToAnyone) {
        std::this_thread::sleep_for(glance);
    }
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

void SharedMutex::sleepWhile(Word const& word, std::uint32_t value) {
    syscall(SYS_futex, &word, FUTEX_WAIT_PRIVATE, value, nullptr);
}

void SharedMutex::wakeOne(Word const& word) {
    syscall(SYS_futex, &word, FUTEX_WAKE_PRIVATE, 1);
}

void SharedMutex::wakeAll(Word const& word) {
    syscall(SYS_futex, &word, FUTEX_WAKE_PRIVATE, INT_MAX);
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
            sleepWhile(m_readers, seen);
        }
    }
}

} // namespace Vellum
