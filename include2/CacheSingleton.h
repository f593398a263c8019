// The one process-wide handle of a cache: made on first use, never destroyed or replaced.
#pragma once

#include "foundation/Locks.h"

#include <atomic>

namespace Vellum {

// The first read takes no lock, since every request passes here; the pointer is atomic, so what it points at is seen
// whole. A Handle whose constructor throws is not installed, and the next call tries again.
template <class Handle>
Handle* cacheSingleton() {
    static std::atomic<Handle*> installed{nullptr};
    if (Handle* handle = installed.load(std::memory_order_acquire)) {
        return handle;
    }
    static SharedMutex creating;
    ExclusiveLock const hold(creating);
    Handle* handle = installed.load(std::memory_order_relaxed);
    if (handle == nullptr) {
        handle = new Handle();
        installed.store(handle, std::memory_order_release);
    }
    return handle;
}

} // namespace Vellum
