#include "foundation/ipc/Poller.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <system_error>

namespace Vellum::IPC {

Poller::Poller() : m_epoll(::epoll_create1(EPOLL_CLOEXEC)) {
    if (!m_epoll) {
        throw std::system_error(errno, std::generic_category(), "epoll_create1");
    }
}

void Poller::watch(int descriptor, std::uint32_t events) {
    auto const before = m_watched.find(descriptor);
    bool const isIn = before != m_watched.end();
    if (events == (isIn ? before->second : 0)) {
        return;
    }
    epoll_event event{};
    event.events = events;
    event.data.fd = descriptor;
    int const operation = events == 0 ? EPOLL_CTL_DEL : isIn ? EPOLL_CTL_MOD : EPOLL_CTL_ADD;
    if (::epoll_ctl(m_epoll.get(), operation, descriptor, &event) != 0) {
        throw std::system_error(errno, std::generic_category(), "epoll_ctl");
    }
    if (events == 0) {
        m_watched.erase(before);
    } else {
        m_watched.insert_or_assign(descriptor, events);
    }
}

void Poller::forget(int descriptor) {
    if (m_watched.erase(descriptor) != 0) {
        ::epoll_ctl(m_epoll.get(), EPOLL_CTL_DEL, descriptor, nullptr);
    }
    clearDeadline(descriptor);
}

void Poller::setDeadline(int descriptor, Clock::duration fromNow) {
    clearDeadline(descriptor);
    Clock::time_point const when = Clock::now() + fromNow;
    m_deadlineOf.emplace(descriptor, when);
    m_deadlines.emplace(when, descriptor);
}

void Poller::clearDeadline(int descriptor) {
    auto const found = m_deadlineOf.find(descriptor);
    if (found != m_deadlineOf.end()) {
        m_deadlines.erase({found->second, descriptor});
        m_deadlineOf.erase(found);
    }
}

int Poller::millisecondsToDeadline() const {
    if (m_deadlines.empty()) {
        return -1;
    }
    auto const left = std::chrono::ceil<std::chrono::milliseconds>(m_deadlines.begin()->first - Clock::now());
    return static_cast<int>(std::clamp<long>(left.count(), 0, INT_MAX));
}

std::span<epoll_event const> Poller::wait(bool onlyLook) {
    int const patience = onlyLook ? 0 : millisecondsToDeadline();
    int const count = ::epoll_wait(m_epoll.get(), m_events.data(), static_cast<int>(m_events.size()), patience);
    m_now = Clock::now();
    return {m_events.data(), static_cast<std::size_t>(std::max(count, 0))};
}

std::optional<int> Poller::nextExpired() {
    if (m_deadlines.empty() || m_deadlines.begin()->first > m_now) {
        return std::nullopt;
    }
    int const descriptor = m_deadlines.begin()->second;
    clearDeadline(descriptor);
    return descriptor;
}

} // namespace Vellum::IPC
