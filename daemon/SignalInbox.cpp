#include "daemon/SignalInbox.h"

#include "foundation/Exception.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

namespace Vellum::Daemon {
namespace {

// Where the handler writes; handlers have no other way to know.
std::atomic<int> pipeOfHandler{-1};

void writeTo(int pipe, int signal) {
    auto const number = static_cast<unsigned char>(signal);
    // A full pipe holds more signals than anybody will act on.
    [[maybe_unused]] ssize_t const ignored = write(pipe, &number, sizeof number);
}

extern "C" void signalArrived(int signal) {
    int const kept = errno;
    writeTo(pipeOfHandler.load(), signal);
    errno = kept;
}

void setBlocked(int signal, int how) {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, signal);
    pthread_sigmask(how, &set, nullptr);
}

} // namespace

SignalInbox::SignalInbox(std::initializer_list<int> signals) : m_signals(signals) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        throw Exception("SignalInbox", Exception::failure).stringParameter(std::strerror(errno));
    }
    m_reading = FileDescriptor(ends[0]);
    m_writing = FileDescriptor(ends[1]);
    fcntl(ends[1], F_SETFL, O_NONBLOCK); // a handler must not wait
    pipeOfHandler = ends[1];
    struct sigaction action {};
    action.sa_handler = signalArrived;
    action.sa_flags = SA_RESTART; // whichever thread it interrupts goes on
    for (int const signal : m_signals) {
        sigaction(signal, &action, nullptr);
        setBlocked(signal, SIG_UNBLOCK);
    }
}

SignalInbox::~SignalInbox() {
    for (int const signal : m_signals) {
        setBlocked(signal, SIG_BLOCK);
        std::signal(signal, SIG_DFL);
    }
    pipeOfHandler = -1;
}

int SignalInbox::next() {
    std::optional<int> signal;
    while (!signal) {
        signal = take(-1);
    }
    return *signal;
}

std::optional<int> SignalInbox::next(std::chrono::milliseconds patience) {
    using Clock = std::chrono::steady_clock;
    auto const end = Clock::now() + patience;
    for (auto left = patience; left.count() >= 0; // a signal that is not ours may have interrupted the wait
         left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now())) {
        if (auto const signal = take(static_cast<int>(left.count()))) {
            return signal;
        }
        if (left.count() == 0) {
            break;
        }
    }
    return std::nullopt;
}

// Waits in poll(): under the thread sanitizer a read() that waits lets no handler run.
std::optional<int> SignalInbox::take(int milliseconds) {
    unsigned char number = 0;
    pollfd waiting{m_reading.get(), POLLIN, 0};
    if (poll(&waiting, 1, milliseconds) <= 0 || read(m_reading.get(), &number, sizeof number) != sizeof number) {
        return std::nullopt;
    }
    return number;
}

void SignalInbox::put(int signal) {
    writeTo(m_writing.get(), signal);
}

} // namespace Vellum::Daemon
