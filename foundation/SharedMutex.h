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
            wakeAll(m_readers); // the last reader before a waiting writer
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
    // As unlock(), and who sleeps for the lock gets it before this thread can come back, for which it waits: for work
    // that takes it again and again and can wait.
    void unlockInTurn() VELLUM_RELEASE() {
        yieldClaim();
        if (m_sleepers.load(std::memory_order_relaxed) == 0) {
            leave();
        } else {
            handOverInTurn();
        }
    }

    // Whether a writer or a promotion holds the lock, or waits for shared holders to go. True or not any more by the
    // time it is read: for tests and diagnostics.
    bool isClaimed() const { return (m_readers.load(std::memory_order_relaxed) & claimed) != 0; }

  private:
    static constexpr std::uint32_t writer = 0x80000000U;  // set by who has the gate
    static constexpr std::uint32_t pending = 0x40000000U; // set by who has the turn
    static constexpr std::uint32_t claimed = writer | pending;

    // The gate: held by the one upgrader, or the writer that writes. Whoever comes along may take it when it is free,
    // which is quick; but one who was woken in vain is handed it, or a thread that takes the lock again and again would
    // keep him out.
    enum Gate : std::uint32_t {
        isFree,
        isHeld,
        isWaitedFor,     // held, and somebody sleeps
        isHanded,        // to those who were woken in vain
        isHandedToAnyone // who sleeps
    };
    using Word = std::atomic<std::uint32_t>;

    void enter() {
        std::uint32_t expected = isFree;
        if (!m_gate.compare_exchange_strong(expected, isHeld, std::memory_order_acquire)) {
            enterSlowly();
        }
    }
    void leave() {
        if (m_impatient.load(std::memory_order_relaxed) != 0) {
            handOverToImpatient();
        } else if (m_gate.exchange(isFree, std::memory_order_release) == isWaitedFor) {
            wakeOne(m_gate);
        }
    }
    void yieldClaim() {
        m_readers.fetch_and(~writer, std::memory_order_seq_cst);
        if (m_sleepingReaders.load(std::memory_order_seq_cst) != 0) {
            wakeAll(m_readers);
        }
    }
    // The kernel's, at once: what the library's atomics wait with gives up the processor some times before it sleeps,
    // and on a busy machine gets it back some milliseconds later.
    static void sleepWhile(Word const& word, std::uint32_t value);
    static void wakeOne(Word const& word);
    static void wakeAll(Word const& word);

    void handOverToImpatient();
    void handOverInTurn();
    void lockSharedSlowly();
    void enterSlowly();
    bool readersGoSoon();
    void awaitReaders();
    void lockBehindReaders();

    Word m_readers{0}; // shared holders, and a bit while a writer waits or holds
    Word m_gate{isFree};
    Word m_sleepers{0};        // who wait for the gate, and take it when it is handed to anyone
    Word m_impatient{0};       // those of them who were woken in vain
    Word m_sleepingReaders{0}; // shared requests that sleep until both bits are gone
    std::mutex m_turn;         // held by the one writer that waits for readers without the gate
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

// The same, and ends with unlockInTurn().
class VELLUM_SCOPED_CAPABILITY TurnLock {
  public:
    explicit TurnLock(SharedMutex& mutex) VELLUM_ACQUIRE(mutex) : m_mutex(mutex) { mutex.lock(); }
    ~TurnLock() VELLUM_RELEASE() { m_mutex.unlockInTurn(); }
    TurnLock(TurnLock const&) = delete;
    TurnLock& operator=(TurnLock const&) = delete;

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
