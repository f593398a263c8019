// A value that many threads read and that is now and then replaced as a whole.
#pragma once

#include "foundation/Locks.h"

#include <memory>
#include <utility>

namespace Vellum::Daemon {

// Thread-safe. A reader keeps the value that it got for as long as it likes; the next get() after a replacement answers
// the new one. The lock is held for a copy of a pointer.
template <class T>
class Replaceable {
  public:
    explicit Replaceable(T value) : m_value(std::make_shared<T const>(std::move(value))) {}

    std::shared_ptr<T const> get() const {
        Synchronized const hold(m_lock);
        return m_value;
    }
    void replace(T value) {
        auto replaced =
            std::make_shared<T const>(std::move(value)); // and after the swap the old one, which dies unlocked
        Synchronized const hold(m_lock);
        m_value.swap(replaced);
    }

  private:
    mutable Mutex m_lock;
    std::shared_ptr<T const> m_value VELLUM_GUARDED_BY(m_lock);
};

} // namespace Vellum::Daemon
