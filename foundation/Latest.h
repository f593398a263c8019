// The latest value of something that one thread sets and others read, such as how the last backup went.
#pragma once

#include "foundation/Locks.h"

#include <utility>

namespace Vellum {

// Thread-safe. The lock is held for a copy; nothing is called while it is.
template <class T>
class Latest {
  public:
    T get() const {
        Synchronized const hold(m_lock);
        return m_value;
    }
    void set(T value) {
        Synchronized const hold(m_lock);
        m_value = std::move(value);
    }
    // Has `change` work on the value in place.
    template <class Change>
    void update(Change change) {
        Synchronized const hold(m_lock);
        change(m_value);
    }

  private:
    mutable Mutex m_lock;
    T m_value VELLUM_GUARDED_BY(m_lock);
};

// The process's latest T. Never destroyed: detached threads may outlive main(). To be called in one source file only,
// behind a function of the T's own: a program and a library would each have one otherwise.
template <class T>
Latest<T>& latestOfProcess() {
    static Latest<T>& latest = *new Latest<T>;
    return latest;
}

} // namespace Vellum
