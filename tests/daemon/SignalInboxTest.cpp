#include "daemon/SignalInbox.h"

#include "tests/support/Eventually.h"

#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <fstream>
#include <string>
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

TEST(SignalInbox, WaitEndsWithASignalOrWithItsPatience) {
    Blocked const usr1(SIGUSR1);
    SignalInbox inbox({SIGUSR1});
    EXPECT_EQ(inbox.next(std::chrono::milliseconds(0)), std::nullopt);
    EXPECT_EQ(inbox.next(std::chrono::milliseconds(5)), std::nullopt);
    raise(SIGUSR1);
    EXPECT_EQ(inbox.next(std::chrono::milliseconds(0)), SIGUSR1);
    std::thread later([&] { inbox.put(SIGTERM); });
    EXPECT_EQ(inbox.next(std::chrono::hours(1)), SIGTERM);
    later.join();
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

TEST(SignalInbox, WhatIsPutComesInItsOrder) {
    Blocked const blocked(SIGUSR1);
    SignalInbox inbox({SIGUSR1});
    std::thread([&] { inbox.put(SIGTERM); }).join();
    raise(SIGUSR1);
    EXPECT_EQ(inbox.next(), SIGTERM);
    EXPECT_EQ(inbox.next(), SIGUSR1);
}

bool sleeps(pid_t thread) {
    std::string number, name, state;
    std::ifstream("/proc/self/task/" + std::to_string(thread) + "/stat") >> number >> name >> state;
    return state == "S";
}

// The milter library has such a thread. One that only begins to wait may take what is pending.
TEST(SignalInbox, ThreadThatWaitsForTheSameSignalDoesNotGetIt) {
    Blocked const blocked(SIGUSR1);
    std::atomic<pid_t> begins{0};
    std::atomic<int> taken{-1};
    std::thread waiting([&] {
        begins = gettid();
        int signal = 0;
        sigwait(&blocked.set(), &signal);
        taken = signal;
    });
    ASSERT_TRUE(eventually([&] { return begins != 0 && sleeps(begins); }));
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
