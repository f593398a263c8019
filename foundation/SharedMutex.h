// A reader/writer lock with a third, upgradable mode.
//
//   shared     many at once, beside one upgrader
//   upgrade    one at a time, beside shared holders; may be promoted to exclusive without letting go
//   exclusive  alone
//
// Why not the library's: a greylisting decision takes upgrade mode for well under a microsecond, and the upgrade mode
// of boost::shared_mutex costs more than the tree search it protects (figures: docs/performance.md). Here an
// uncontended upgrade hold is two atomic operations.
//
// Fairness: from the moment a writer (or a promotion) waits for shared holders to go, new ones wait behind it, so
// listings cannot starve decisions. Upgraders do not wait behind a waiting writer: they go on beside the shared holders
// it waits for, which may be a listing to a slow client. A thread must not take the same lock twice, in any mode.
// Waiting spins briefly and then sleeps in the kernel. Lock and unlock are acquire and release operations.
#pragma once

#include "foundation/ThreadAnnotations.h"

#include <atomic>
#include <cstdint>
#include <mutex>

namespace Vellum {

class VELLUM_CAPABILITY("shared mutex") SharedMutex {
  public:
    SharedMutex() = default;
    SharedMutex(SharedMutex const&) = delete;
    SharedMutex& operator=(SharedMutex const&) = delete;

    void lockShared() VELLUM_ACQUIRE_SHARED() {
        std::uint32_t seen = m_readers.load(std::memory_order_relaxed);
        if ((seen & claimed) != 0 || !m_readers.compare_exchange_weak(seen, seen + 1, std::memory_order_acquire)) {
            lockSharedSlowly();
        }
    }
    void unlockShared() VELLUM_RELEASE_SHARED() {
        std::uint32_t const left = m_readers.fetch_sub(1, std::memory_order_release) - 1;
        if ((left & claimed) != 0 && (left & ~claimed) == 0) {
            m_readers.notify_all(); // the last reader before a waiting writer
        }
    }

    // To the analysis, upgrade mode is a shared hold.
    void lockUpgrade() VELLUM_ACQUIRE_SHARED() { enter(); }
    void unlockUpgrade() VELLUM_RELEASE_SHARED() { leave(); }

    // From upgrade to exclusive mode: waits for shared holders only, nobody can come between. Other upgraders wait,
    // too; where they must not, tryPromote().
    void promote() VELLUM_NO_THREAD_SAFETY_ANALYSIS {
        if (m_readers.fetch_or(writer, std::memory_order_acquire) != 0) {
            awaitReaders();
        }
    }
    // The same, unless shared holders stay for longer than about a microsecond: then false, and still in upgrade mode.
    bool tryPromote() VELLUM_NO_THREAD_SAFETY_ANALYSIS {
        return m_readers.fetch_or(writer, std::memory_order_acquire) == 0 || readersGoSoon();
    }
    void demote() VELLUM_NO_THREAD_SAFETY_ANALYSIS { yieldClaim(); }

    void lock() VELLUM_ACQUIRE() {
        enter();
        if (!tryPromote()) {
            leave();
            lockBehindReaders();
        }
    }
    void unlock() VELLUM_RELEASE() {
        yieldClaim();
        leave();
    }
    // As unlock(), and who sleeps for the lock gets it before this thread can come back: for work that takes it again
    // and again and can wait.
    void unlockInTurn() VELLUM_RELEASE() {
        yieldClaim();
        handOver(m_sleepers);
    }

    // Whether a writer or a promotion holds the lock, or waits for shared holders to go. True or not any more by the
    // time it is read: for tests and diagnostics.
    bool isClaimed() const { return (m_readers.load(std::memory_order_relaxed) & claimed) != 0; }

  private:
    static constexpr std::uint32_t writer = 0x80000000U;  // set by who has the gate
    static constexpr std::uint32_t pending = 0x40000000U; // set by who has the turn
    static constexpr std::uint32_t claimed = writer | pending;

    // The gate: held by the one upgrader, or the writer that writes. 0 free, 1 held, 2 held and somebody sleeps, 3
    // handed to one who sleeps. Whoever comes along may take it when it is free, which is quick; but one who was woken
    // in vain is handed it, or a thread that takes the lock again and again would keep him out.
    void enter() {
        std::uint32_t expected = 0;
        if (!m_gate.compare_exchange_strong(expected, 1, std::memory_order_acquire)) {
            enterSlowly();
        }
    }
    void leave() { handOver(m_impatient); }
    // To one of those who sleep, if there is anybody that `forWhom` counts.
    void handOver(std::atomic<std::uint32_t> const& forWhom) {
        std::uint32_t const next = forWhom.load(std::memory_order_relaxed) == 0 ? 0 : 3;
        if (m_gate.exchange(next, std::memory_order_release) == 2) {
            m_gate.notify_one();
        }
    }
    void yieldClaim() {
        m_readers.fetch_and(~writer, std::memory_order_seq_cst);
        if (m_sleepingReaders.load(std::memory_order_seq_cst) != 0) {
            m_readers.notify_all();
        }
    }
    void lockSharedSlowly();
    void enterSlowly();
    bool readersGoSoon();
    void awaitReaders();
    void lockBehindReaders();

    std::atomic<std::uint32_t> m_readers{0}; // shared holders, and a bit while a writer waits or holds
    std::atomic<std::uint32_t> m_gate{0};
    std::atomic<std::uint32_t> m_sleepers{0};        // who wait for the gate, and may take it when it is handed over
    std::atomic<std::uint32_t> m_impatient{0};       // those of them who were woken in vain
    std::atomic<std::uint32_t> m_sleepingReaders{0}; // shared requests that sleep until both bits are gone
    std::mutex m_turn;                               // held by the one writer that waits for readers without the gate
};

// Holds a SharedMutex in shared mode for its life, or until release().
class VELLUM_SCOPED_CAPABILITY SharedLock {
  public:
    explicit SharedLock(SharedMutex& mutex) VELLUM_ACQUIRE_SHARED(mutex) : m_mutex(&mutex) { mutex.lockShared(); }
    ~SharedLock() VELLUM_RELEASE_GENERIC() {
        if (m_mutex != nullptr) {
            m_mutex->unlockShared();
        }
    }
    void release() VELLUM_RELEASE_GENERIC() {
        m_mutex->unlockShared();
        m_mutex = nullptr;
    }
    SharedLock(SharedLock const&) = delete;
    SharedLock& operator=(SharedLock const&) = delete;

  private:
    SharedMutex* m_mutex;
};

class VELLUM_SCOPED_CAPABILITY ExclusiveLock {
  public:
    explicit ExclusiveLock(SharedMutex& mutex) VELLUM_ACQUIRE(mutex) : m_mutex(mutex) { mutex.lock(); }
    ~ExclusiveLock() VELLUM_RELEASE() { m_mutex.unlock(); }
    ExclusiveLock(ExclusiveLock const&) = delete;
    ExclusiveLock& operator=(ExclusiveLock const&) = delete;

  private:
    SharedMutex& m_mutex;
};

// Holds a SharedMutex in upgrade mode; a promotion turns that into exclusive mode for the rest of its life.
class VELLUM_SCOPED_CAPABILITY UpgradeLock {
  public:
    explicit UpgradeLock(SharedMutex& mutex) VELLUM_ACQUIRE_SHARED(mutex) : m_mutex(mutex) { mutex.lockUpgrade(); }
    ~UpgradeLock() VELLUM_RELEASE_GENERIC() {
        if (m_promoted) {
            m_mutex.demote();
        }
        m_mutex.unlockUpgrade();
    }
    void promote() VELLUM_RELEASE_GENERIC() VELLUM_ACQUIRE() {
        if (!m_promoted) {
            m_mutex.promote();
            m_promoted = true;
        }
    }
    // Whether promote() may follow without waiting for shared holders; they are kept out from then on.
    bool tryPromote() VELLUM_NO_THREAD_SAFETY_ANALYSIS { return m_promoted = m_mutex.tryPromote(); }
    UpgradeLock(UpgradeLock const&) = delete;
    UpgradeLock& operator=(UpgradeLock const&) = delete;

  private:
    SharedMutex& m_mutex;
    bool m_promoted = false;
};

} // namespace Vellum
