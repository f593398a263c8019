#include "daemon/SignalInbox.h"

#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <thread>
#include <unistd.h>

namespace Vellum::Daemon {
namespace {

// Blocks the signal in this thread, and in those that it starts, as main() does.
class Blocked {
  public:
    explicit Blocked(int signal) {
        sigemptyset(&m_set);
        sigaddset(&m_set, signal);
        pthread_sigmask(SIG_BLOCK, &m_set, &m_before);
    }
    ~Blocked() { pthread_sigmask(SIG_SETMASK, &m_before, nullptr); }
    sigset_t const& set() const { return m_set; }

  private:
    sigset_t m_set{};
    sigset_t m_before{};
};

TEST(SignalInbox, SignalsComeInTheirOrder) {
    Blocked const usr1(SIGUSR1);
    Blocked const usr2(SIGUSR2);
    SignalInbox inbox({SIGUSR1, SIGUSR2});
    raise(SIGUSR2);
    raise(SIGUSR1);
    EXPECT_EQ(inbox.next(), SIGUSR2);
    EXPECT_EQ(inbox.next(), SIGUSR1);
}

TEST(SignalInbox, PendingSignalIsTaken) {
    Blocked const blocked(SIGUSR1);
    raise(SIGUSR1);
    SignalInbox inbox({SIGUSR1});
    EXPECT_EQ(inbox.next(), SIGUSR1);
}

TEST(SignalInbox, SignalIsBlockedAgainAfterwards) {
    Blocked const blocked(SIGUSR1);
    { SignalInbox const inbox({SIGUSR1}); }
    raise(SIGUSR1); // would end the process
    int signal = 0;
    EXPECT_EQ(sigwait(&blocked.set(), &signal), 0);
    EXPECT_EQ(signal, SIGUSR1);
}

// The milter library has such a thread.
TEST(SignalInbox, ThreadThatWaitsForTheSameSignalDoesNotGetIt) {
    Blocked const blocked(SIGUSR1);
    std::atomic<int> taken{-1};
    std::thread waiting([&] {
        int signal = 0;
        sigwait(&blocked.set(), &signal);
        taken = signal;
    });
    {
        SignalInbox inbox({SIGUSR1});
        for (int i = 0; i < 100; ++i) {
            kill(getpid(), SIGUSR1);
            EXPECT_EQ(inbox.next(), SIGUSR1);
        }
        EXPECT_EQ(taken, -1);
        pthread_kill(waiting.native_handle(), SIGUSR1); // for that thread alone
        waiting.join();
    }
    EXPECT_EQ(taken, SIGUSR1);
}

} // namespace
} // namespace Vellum::Daemon
