// What a thread that waits for many sockets waits with: an epoll set that can also be woken.
#pragma once

#include "foundation/FileDescriptor.h"

#include <cstddef>
#include <cstdint>
#include <span>
#include <sys/epoll.h>

namespace Vellum::Daemon {

// Level-triggered. add(), change() and wake() may be called by any thread; wait() by one.
class EpollSet {
  public:
    // Throws Exception when the system has no room for it.
    EpollSet();

    // Watches a descriptor for `events`; `subject`, never null, comes back with them. A descriptor leaves the set when
    // it is closed. Throw Exception.
    void add(int descriptor, std::uint32_t events, void* subject);
    void change(int descriptor, std::uint32_t events, void* subject);

    // Makes wait() return at once, now and for ever.
    void wake();

    static constexpr int forEver = -1;
    // Waits and answers what is ready, in the caller's memory; nothing when it was woken or interrupted.
    std::span<epoll_event> wait(std::span<epoll_event> memory, int milliseconds) const;
    // Waits for nothing but wake(), at most so long.
    void pause(int milliseconds) const;

  private:
    void control(int operation, int descriptor, std::uint32_t events, void* subject);

    FileDescriptor m_epoll;
    FileDescriptor m_wake; // an event descriptor
};

} // namespace Vellum::Daemon
