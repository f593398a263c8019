// Locks of the library, annotated for clang's lock analysis.
//
//   Mutex         plain mutual exclusion, held through Synchronized
//   Semaphore     counting, held through AutoSemaphore
//   SharedMutex   shared, upgrade and exclusive mode, held through SharedLock, UpgradeLock, ExclusiveLock
//
// Order where several are held: a family's entry lock, then its cache lock (docs/architecture.md has the whole list).
#pragma once

#include "foundation/SharedMutex.h"
#include "foundation/ThreadAnnotations.h"

#include <condition_variable>
#include <mutex>

namespace Vellum {

class VELLUM_CAPABILITY("mutex") Mutex {
  public:
    void lock() VELLUM_ACQUIRE() { m_mutex.lock(); }
    void unlock() VELLUM_RELEASE() { m_mutex.unlock(); }
    bool try_lock() VELLUM_TRY_ACQUIRE(true) { return m_mutex.try_lock(); }

  private:
    std::mutex m_mutex;
};

class VELLUM_SCOPED_CAPABILITY Synchronized {
  public:
    explicit Synchronized(Mutex& mutex) VELLUM_ACQUIRE(mutex) : m_mutex(mutex) { m_mutex.lock(); }
    ~Synchronized() VELLUM_RELEASE() { m_mutex.unlock(); }
    Synchronized(Synchronized const&) = delete;
    Synchronized& operator=(Synchronized const&) = delete;

  private:
    Mutex& m_mutex;
};

class Semaphore {
  public:
    explicit Semaphore(unsigned int count) : m_count(count) {}
    void acquire(unsigned int n);
    void release(unsigned int n);

  private:
    std::mutex m_mutex;
    std::condition_variable m_released;
    unsigned int m_count; // free units, under m_mutex
};

// Takes `n` units for its life; a count below 1 takes none.
class AutoSemaphore {
  public:
    AutoSemaphore(Semaphore& semaphore, int n);
    ~AutoSemaphore();
    AutoSemaphore(AutoSemaphore const&) = delete;
    AutoSemaphore& operator=(AutoSemaphore const&) = delete;

  private:
    Semaphore& m_semaphore;
    unsigned int m_units;
};

// Sleeps for `seconds` plus `milliseconds`.
void sleepFor(unsigned int seconds, unsigned int milliseconds);

} // namespace Vellum
