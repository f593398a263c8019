#include "mmsreputation/RefCache.h"

#include "foundation/Exception.h"
#include "foundation/Locks.h"
#include "foundation/Logger.h"
#include "mmsreputation/LogCodes.h"

#include <atomic>

namespace Vellum::MMSReputation {
namespace {

constexpr int mostWaits = 20;
constexpr unsigned int waitMilliseconds = 3;

// What the process has loaded.
class Loaded {
  public:
    // Loaders only: a reader never waits for a load.
    SharedMutex loading VELLUM_ACQUIRED_BEFORE(m_publishing);

    bool is() const { return m_is.load(std::memory_order_acquire); }
    RefCache current() const {
        Synchronized const hold(m_publishing);
        return m_current;
    }
    void publish(RefCache const& cache) VELLUM_REQUIRES(loading)
    {
        RefCache replaced(false); // goes when the lock is free: it may be the last handle on ten thousand entries
        {
            Synchronized const hold(m_publishing);
            replaced = m_current;
            m_current = cache;
        }
        m_is.store(true, std::memory_order_release);
    }

  private:
    mutable Mutex m_publishing; // for the copy of a handle; innermost
    RefCache m_current VELLUM_GUARDED_BY(m_publishing)
    {false};
    std::atomic<bool> m_is{false};
};

Loaded& loaded() {
    static Loaded& state = *new Loaded; // detached threads may outlive main()
    return state;
}

RefCache currentOrWait() {
    for (int waits = 0; !loaded().is(); ++waits) {
        if (waits == mostWaits) {
            Logger::instance(false).log(LogCode::cacheNotLoaded, 0, "%s", " ");
            return RefCache(false);
        }
        sleepFor(0, waitMilliseconds);
    }
    return loaded().current();
}

RefCache load(EntrySource& source, unsigned int what) {
    constexpr unsigned int bothLists = Select::exemptList | Select::blacklist;
    ExclusiveLock const hold(loaded().loading);
    RefCache fresh(true);
    source.read(fresh, what);
    RefCache const current = loaded().current();
    if (current.isNull() || what == 0 || what > bothLists) {
        loaded().publish(fresh);
        return fresh;
    }
    if ((what & Select::exemptList) != 0) {
        current->copyExempt(*fresh);
    }
    if ((what & Select::blacklist) != 0) {
        current->copyBlacklist(*fresh);
    }
    return current;
}

} // namespace

Cache* RefCache::operator->() const {
    if (isNull()) {
        throw Exception("RefCache::operator->", Exception::emptyHandle, Source::reputation)
            .stringParameter("no cache is loaded");
    }
    return m_cache.get();
}

RefCache RefCache::instance(EntrySource* source, unsigned int what) {
    return source == nullptr ? currentOrWait() : load(*source, what);
}

} // namespace Vellum::MMSReputation
