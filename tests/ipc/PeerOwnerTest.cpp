// Who may speak, with a second user of the system where the tests may become one.
#include "foundation/ipc/PeerOwner.h"

#include "foundation/FileDescriptor.h"
#include "foundation/ipc/Doorkeeper.h"
#include "tests/ipc/TestDispatcher.h"
#include "tests/support/DescriptorLimit.h"

#include <functional>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace Vellum::IPC {
namespace {

constexpr uid_t nobody = 65534;

// A listening socket and the connection that was accepted from it.
struct Meeting {
    FileDescriptor listener;
    FileDescriptor accepted;

    explicit Meeting(std::string const& host) {
        SystemAddress const any = SystemAddress::of(host, 0);
        listener = FileDescriptor(::socket(any.family(), SOCK_STREAM | SOCK_CLOEXEC, 0));
        ::bind(listener.get(), any.get(), any.length);
        ::listen(listener.get(), 8);
    }
    unsigned int port() const { return SystemAddress::local(listener.get()).value().port(); }
    void accept() { accepted = FileDescriptor(::accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC)); }
};

// Runs `work` as another user, in a process of its own; its result is the process's exit code.
class OtherUser {
  public:
    explicit OtherUser(std::function<int()> const& work) : m_process(::fork()) {
        if (m_process == 0) {
            ::_exit(::setresuid(nobody, nobody, nobody) == 0 ? work() : 99);
        }
    }
    int wait() {
        int status = 0;
        ::waitpid(m_process, &status, 0);
        m_process = 0;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    ~OtherUser() {
        if (m_process > 0) {
            wait();
        }
    }
    OtherUser(OtherUser const&) = delete;
    OtherUser& operator=(OtherUser const&) = delete;

  private:
    pid_t m_process;
};

// In a forked child only what is safe there: no allocation, no exceptions.
int connectTo(SystemAddress const& address) {
    int const socket = ::socket(address.family(), SOCK_STREAM, 0);
    return ::connect(socket, address.get(), address.length) == 0 ? socket : -1;
}

// Means by which the kernel is asked, and an address of this machine.
struct Way {
    PeerOwner::Means means;
    char const* host;
};

struct OwnerOfPeer : testing::TestWithParam<Way> {
    Meeting meeting{GetParam().host};
    PeerOwner owners{GetParam().means};

    SystemAddress address() const { return SystemAddress::of(GetParam().host, meeting.port()); }
};

#define SKIP_UNLESS_ROOT()                                                                                             \
    if (::geteuid() != 0) {                                                                                            \
        GTEST_SKIP() << "needs root, to become another user";                                                          \
    }

} // namespace

TEST_P(OwnerOfPeer, IsThisUserForAConnectionOfOurs) {
    RawClient const client(meeting.port(), GetParam().host);
    meeting.accept();
    EXPECT_EQ(owners.of(meeting.accepted.get()), ::geteuid());
}

TEST_P(OwnerOfPeer, IsToldWhenNoDescriptorIsLeft) {
    RawClient const client(meeting.port(), GetParam().host);
    meeting.accept();
    DescriptorLimit const none;
    EXPECT_EQ(owners.of(meeting.accepted.get()), ::geteuid());
}

TEST_P(OwnerOfPeer, IsTheOtherUserForHis) {
    SKIP_UNLESS_ROOT();
    SystemAddress const target = address();
    OtherUser other([&] {
        char byte = 0;
        int const socket = connectTo(target);
        return socket < 0 ? 1 : static_cast<int>(::read(socket, &byte, 1)); // until we let go
    });
    meeting.accept();
    EXPECT_EQ(owners.of(meeting.accepted.get()), nobody);
    meeting.accepted.reset();
    EXPECT_EQ(other.wait(), 0);
}

TEST_P(OwnerOfPeer, IsNeverSomebodyElseWhenThePeerHasGone) {
    SKIP_UNLESS_ROOT();
    SystemAddress const target = address();
    for (int i = 0; i < 20; ++i) {
        OtherUser other([&] {
            int const socket = connectTo(target);
            return socket < 0 || ::send(socket, "12345678", 8, MSG_NOSIGNAL) != 8 ? 1 : 0; // and is gone
        });
        EXPECT_EQ(other.wait(), 0);
        meeting.accept();
        std::optional<uid_t> const owner = owners.of(meeting.accepted.get());
        EXPECT_TRUE(!owner || *owner == nobody) << *owner;
        // Some time later, when all that the kernel keeps is a stub.
        char bytes[16];
        EXPECT_EQ(::recv(meeting.accepted.get(), bytes, sizeof bytes, 0), 8);
        EXPECT_EQ(::recv(meeting.accepted.get(), bytes, sizeof bytes, 0), 0);
        std::optional<uid_t> const later = owners.of(meeting.accepted.get());
        EXPECT_TRUE(!later || *later == nobody) << *later;
    }
}

TEST_P(OwnerOfPeer, IsNotTheListenerOnThePeersPort) {
    for (;;) {
        // The peer's end is gone without a trace (reset), and another socket listens on its port.
        SystemAddress here;
        {
            FileDescriptor const client(connectTo(address()));
            meeting.accept();
            here = SystemAddress::local(client.get());
            linger const reset{1, 0};
            ::setsockopt(client.get(), SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
        }
        FileDescriptor const listener(::socket(here.family(), SOCK_STREAM | SOCK_CLOEXEC, 0));
        if (::bind(listener.get(), here.get(), here.length) == 0 && ::listen(listener.get(), 1) == 0) {
            EXPECT_EQ(owners.of(here, SystemAddress::local(meeting.accepted.get())), std::nullopt);
            break;
        } // else somebody else of this machine has that port: another one
    }
}

INSTANTIATE_TEST_SUITE_P(Ways, OwnerOfPeer,
                         testing::Values(Way{PeerOwner::Means::best, "127.0.0.1"}, Way{PeerOwner::Means::best, "::1"},
                                         Way{PeerOwner::Means::procOnly, "127.0.0.1"},
                                         Way{PeerOwner::Means::procOnly, "::1"}),
                         [](auto const& way) {
                             return std::string(way.param.means == PeerOwner::Means::best ? "Asked" : "Read") +
                                    (way.param.host[0] == ':' ? "OverIPv6" : "OverIPv4");
                         });

TEST(PeerOwner, FindsAnIPv6SocketThatSpeaksIPv4) {
    Meeting meeting("127.0.0.1");
    RawClient const client(meeting.port(), "::ffff:127.0.0.1");
    meeting.accept();
    EXPECT_EQ(PeerOwner().of(meeting.accepted.get()), ::geteuid());
    EXPECT_EQ(PeerOwner(PeerOwner::Means::procOnly).of(meeting.accepted.get()), ::geteuid());
}

TEST(PeerOwner, KnowsNobodyForASocketThatIsNotConnected) {
    FileDescriptor const socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    EXPECT_EQ(PeerOwner().of(socket.get()), std::nullopt);
    EXPECT_EQ(PeerOwner().of(-1), std::nullopt);
}

TEST(PeerOwner, KnowsNobodyOnAnotherMachine) {
    EXPECT_EQ(PeerOwner().of(SystemAddress::of("192.0.2.1", 40000), SystemAddress::of("127.0.0.1", 29001)),
              std::nullopt);
}

TEST(Doorkeeper, AdmitsRootItselfAndWhoIsNamed) {
    Doorkeeper const keeper({1234}, 29001);
    EXPECT_TRUE(keeper.isAllowed(0));
    EXPECT_TRUE(keeper.isAllowed(::geteuid()));
    EXPECT_TRUE(keeper.isAllowed(1234));
    EXPECT_FALSE(keeper.isAllowed(1235));
}

TEST(Doorkeeper, NamesThePeerWithItsUser) {
    Meeting meeting("127.0.0.1");
    RawClient const client(meeting.port());
    meeting.accept();
    Doorkeeper keeper({}, 29001);
    EXPECT_EQ(keeper.admit(meeting.accepted.get()), SystemAddress::peer(meeting.accepted.get()).value().asString() +
                                                        " (user " + std::to_string(::geteuid()) + ")");
}

TEST(Doorkeeper, RefusesWhomTheKernelDoesNotKnow) {
    CapturingLogger log;
    Doorkeeper keeper({}, 29001);
    EXPECT_EQ(keeper.admit(-1), std::nullopt);
    EXPECT_TRUE(log.waitForNote("does not tell whose connection"));
}

TEST(Stranger, IsCutOffUnheardAndLoggedOnce) {
    SKIP_UNLESS_ROOT();
    TestDispatcher server;
    std::atomic<int> heard{0};
    server.on(70, false, [&](SocketIPC&, Pdu const&) {
        ++heard;
        return 0;
    });
    server.start();
    SystemAddress const target = SystemAddress::of("127.0.0.1", server.port());
    std::string const request = rawUnit(70);
    for (int i = 0; i < 3; ++i) {
        OtherUser other([&] {
            int const socket = connectTo(target);
            ::send(socket, request.data(), request.size(), MSG_NOSIGNAL);
            char byte = 0;
            return ::read(socket, &byte, 1) <= 0 ? 0 : 1; // the end, or a reset
        });
        EXPECT_EQ(other.wait(), 0);
    }
    EXPECT_TRUE(server.answers());
    EXPECT_EQ(heard, 0);
    ASSERT_EQ(server.log.notes().size(), 1U);
    EXPECT_NE(server.log.notes()[0].find("user 65534 may not speak here"), std::string::npos);
}

TEST(Stranger, IsServedOnceTheSettingsNameHim) {
    SKIP_UNLESS_ROOT();
    TestDispatcher server;
    server.options.allowedUsers = {nobody};
    server.start();
    SystemAddress const target = SystemAddress::of("127.0.0.1", server.port());
    std::string const request = rawUnit(TestDispatcher::echoType, "hello");
    OtherUser other([&] {
        int const socket = connectTo(target);
        ::send(socket, request.data(), request.size(), MSG_NOSIGNAL);
        char reply[13];
        return ::recv(socket, reply, sizeof reply, MSG_WAITALL) == sizeof reply ? 0 : 1;
    });
    EXPECT_EQ(other.wait(), 0);
}

} // namespace Vellum::IPC
