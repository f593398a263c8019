#include "daemon/ServiceThread.h"

#include "foundation/Exception.h"

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <system_error>
#include <unistd.h>

namespace Vellum::Daemon {
namespace {

[[noreturn]] void fail(char const* operation, std::string const& reason) {
    throw Exception("startServiceThread", Exception::failure, "ServiceThread")
        .stringParameter(std::string(operation) + ": " + reason);
}

int checked(char const* operation, int descriptor) {
    if (descriptor < 0) {
        fail(operation, std::generic_category().message(errno));
    }
    return descriptor;
}

} // namespace

Descriptor::~Descriptor() {
    if (m_descriptor >= 0) {
        close(m_descriptor);
    }
}

int makeEvent() {
    return checked("eventfd", eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
}

void signalEvent(int event) {
    std::uint64_t const one = 1;
    // Fails only when it is signalled already.
    [[maybe_unused]] ssize_t const written = write(event, &one, sizeof one);
}

int makeEpoll(int wake) {
    int const epoll = checked("epoll_create1", epoll_create1(EPOLL_CLOEXEC));
    epoll_event event{};
    event.events = EPOLLIN;
    if (epoll_ctl(epoll, EPOLL_CTL_ADD, wake, &event) != 0) {
        int const error = errno;
        close(epoll);
        fail("epoll_ctl", std::generic_category().message(error));
    }
    return epoll;
}

std::thread startServiceThread(std::string const& name, std::function<void()> body) {
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    std::thread thread;
    std::string failure;
    try {
        thread = std::thread(std::move(body));
        pthread_setname_np(thread.native_handle(), name.c_str());
    } catch (std::system_error const& e) {
        failure = e.what();
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    if (!failure.empty()) {
        fail(("thread " + name).c_str(), failure);
    }
    return thread;
}

} // namespace Vellum::Daemon
