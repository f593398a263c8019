// Remembers the messages of a short while, to do something once for each of them.
#pragma once

#include "foundation/Locks.h"
#include "include2/LRUCache.h"

#include <string>
#include <string_view>

namespace Vellum::Daemon {

// Bounded: a message that was asked about longest ago is forgotten first. Thread-safe.
class RecentMessages {
  public:
    explicit RecentMessages(std::uint32_t most) : m_seen(most) {}

    // Whether this message has not been asked about before. `instance` is what tells messages apart.
    bool isNew(std::string_view instance) {
        std::string const key(instance);
        ExclusiveLock const hold(m_seen.lock);
        if (m_seen.findNoLock(key) != m_seen.end()) {
            return false;
        }
        m_seen.addNoLock(key, Seen{});
        return true;
    }

  private:
    struct Seen {};
    LRUCache<std::string, Seen> m_seen; // under its own lock
};

} // namespace Vellum::Daemon
