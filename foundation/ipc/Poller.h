// What a loop waits for: events of descriptors (an epoll set), and one deadline for each of them.
//
// One thread at a time.
#pragma once

#include "foundation/FileDescriptor.h"

#include <array>
#include <chrono>
#include <cstdint>
#include <optional>
#include <set>
#include <span>
#include <sys/epoll.h>
#include <unordered_map>
#include <utility>

namespace Vellum::IPC {

class Poller {
  public:
    using Clock = std::chrono::steady_clock;

    // Throws std::system_error, like the others.
    Poller();

    // From now on, these events of a descriptor are reported; 0: none, not even errors.
    void watch(int descriptor, std::uint32_t events);
    // Before a descriptor is closed: neither events nor a deadline of it any more.
    void forget(int descriptor);

    // A descriptor has one deadline at most; a new one replaces it.
    void setDeadline(int descriptor, Clock::duration fromNow);
    void clearDeadline(int descriptor);
    bool hasDeadline(int descriptor) const { return m_deadlineOf.count(descriptor) != 0; }

    // Waits for events or for the next deadline, or only looks. The events are valid until the next call.
    std::span<epoll_event const> wait(bool onlyLook);
    // Takes away a deadline that had passed by the last wait(); answers its descriptor.
    std::optional<int> nextExpired();

  private:
    int millisecondsToDeadline() const;

    FileDescriptor m_epoll;
    std::unordered_map<int, std::uint32_t> m_watched; // events, for each descriptor in the set
    std::unordered_map<int, Clock::time_point> m_deadlineOf;
    std::set<std::pair<Clock::time_point, int>> m_deadlines; // the same, in order
    Clock::time_point m_now;                                 // after the last wait()
    std::array<epoll_event, 256> m_events;
};

} // namespace Vellum::IPC
