#include "daemon/EpollSet.h"

#include "foundation/Exception.h"

#include <algorithm>
#include <cerrno>
#include <poll.h>
#include <sys/eventfd.h>
#include <system_error>
#include <unistd.h>

namespace Vellum::Daemon {
namespace {

[[noreturn]] void fail(char const* operation) {
    throw Exception("EpollSet", Exception::failure, "EpollSet")
        .stringParameter(std::string(operation) + ": " + std::generic_category().message(errno));
}

} // namespace

EpollSet::EpollSet() : m_epoll(epoll_create1(EPOLL_CLOEXEC)), m_wake(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (!m_epoll || !m_wake) {
        fail("epoll_create1");
    }
    control(EPOLL_CTL_ADD, m_wake.get(), EPOLLIN, nullptr);
}

void EpollSet::add(int descriptor, std::uint32_t events, void* subject) {
    control(EPOLL_CTL_ADD, descriptor, events, subject);
}

void EpollSet::change(int descriptor, std::uint32_t events, void* subject) {
    control(EPOLL_CTL_MOD, descriptor, events, subject);
}

void EpollSet::control(int operation, int descriptor, std::uint32_t events, void* subject) {
    epoll_event event{};
    event.events = events;
    event.data.ptr = subject;
    if (epoll_ctl(m_epoll.get(), operation, descriptor, &event) != 0) {
        fail("epoll_ctl");
    }
}

void EpollSet::wake() {
    std::uint64_t const one = 1;
    // Can only fail when it would overflow, and is readable then.
    [[maybe_unused]] ssize_t const written = write(m_wake.get(), &one, sizeof one);
}

std::span<epoll_event> EpollSet::wait(std::span<epoll_event> memory, int milliseconds) const {
    int const ready = epoll_wait(m_epoll.get(), memory.data(), static_cast<int>(memory.size()), milliseconds);
    auto const all = memory.first(static_cast<std::size_t>(std::max(ready, 0))); // below 0: interrupted
    auto const isWake = [](epoll_event const& event) {
        return event.data.ptr == nullptr;
    };
    auto const rest = std::remove_if(all.begin(), all.end(), isWake);
    return all.first(static_cast<std::size_t>(rest - all.begin()));
}

void EpollSet::pause(int milliseconds) const {
    pollfd woken{m_wake.get(), POLLIN, 0};
    poll(&woken, 1, milliseconds);
}

} // namespace Vellum::Daemon
