#include "dbdaemon/RequestServer.h"

#include "../support/TemporaryDirectory.h"
#include "AskAs.h"
#include "Files.h"
#include "foundation/Exception.h"

#include <cstring>
#include <future>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <optional>
#include <random>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

namespace Vellum::DatabaseDaemon {
namespace {

using testing::HasSubstr;

// One raw conversation. Waits at most half a minute, which only a test that fails does.
class RawClient {
  public:
    explicit RawClient(std::string const& path) : m_socket(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        timeval const patience{30, 0};
        setsockopt(m_socket.get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
        EXPECT_EQ(connect(m_socket.get(), reinterpret_cast<sockaddr const*>(&address), sizeof address), 0)
            << std::strerror(errno);
    }
    void send(std::string_view bytes) {
        [[maybe_unused]] ssize_t const ignored = ::send(m_socket.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
    }
    void closeSending() { shutdown(m_socket.get(), SHUT_WR); }
    // All that comes until the connection ends.
    std::string rest() {
        std::string all;
        char piece[4096];
        for (ssize_t got = 0; (got = recv(m_socket.get(), piece, sizeof piece, 0)) > 0;) {
            all.append(piece, static_cast<std::size_t>(got));
        }
        return all;
    }
    // The answer; nothing when the connection is closed without one.
    std::optional<Answer> answer() {
        std::int32_t number = 0;
        ssize_t const got = recv(m_socket.get(), &number, sizeof number, MSG_WAITALL);
        EXPECT_FALSE(got < 0 && errno == EAGAIN) << "neither an answer nor an end";
        return got == sizeof number ? std::optional(static_cast<Answer>(number)) : std::nullopt;
    }

  private:
    FileDescriptor m_socket;
};

std::string requestFor(std::string const& path) {
    return std::string(request(RequestCode::greylistScript, path).view());
}

class RequestServerTest : public testing::Test {
  protected:
    RequestServerTest() {
        m_options.socketPath = m_directory.path() + "/s";
        m_options.requestTimeout = std::chrono::seconds(30);
    }
    void start() {
        m_server.emplace(m_options, [this](ScriptRequest const& request, uid_t user) {
            EXPECT_EQ(user, geteuid());
            return m_answering(request);
        });
    }
    void stop() { m_server.reset(); }
    RawClient client() const { return RawClient(m_options.socketPath); }
    std::optional<Answer> ask(std::string_view bytes) const {
        RawClient asking = client();
        asking.send(bytes);
        return asking.answer();
    }

    TemporaryDirectory m_directory;
    RequestServer::Options m_options;
    std::function<RequestServer::Reply(ScriptRequest const&)> m_answering = [](ScriptRequest const& request) {
        return request.path == "/yes" ? Answer::accepted : Answer::scriptUnreadable;
    };
    std::optional<RequestServer> m_server;
};

TEST_F(RequestServerTest, EachRequestGetsItsAnswer) {
    start();
    EXPECT_EQ(ask(requestFor("/yes")), Answer::accepted);
    EXPECT_EQ(ask(requestFor("/no")), Answer::scriptUnreadable);
}

TEST_F(RequestServerTest, ConnectionEndsAfterTheAnswer) {
    start();
    RawClient asking = client();
    asking.send(requestFor("/yes"));
    EXPECT_EQ(asking.answer(), Answer::accepted);
    EXPECT_EQ(asking.answer(), std::nullopt);
}

TEST_F(RequestServerTest, TextComesBehindItsAnswerAndItsLength) {
    std::string const large(3000000, 'x'); // more than a socket takes at once
    m_answering = [&](ScriptRequest const& request) {
        return RequestServer::Reply(Answer::accepted, request.path == "/large" ? large : "4 ran\n");
    };
    start();
    RawClient asking = client();
    asking.send(requestFor("/small"));
    EXPECT_EQ(asking.rest(), std::string("\0\0\0\0\6\0\0\0", 8) + "4 ran\n");
    RawClient patient = client();
    patient.send(requestFor("/large"));
    EXPECT_EQ(patient.rest().substr(8), large);
}

TEST_F(RequestServerTest, BytesMayComeOneByOne) {
    start();
    RawClient asking = client();
    for (char const byte : requestFor("/yes")) {
        asking.send({&byte, 1});
    }
    EXPECT_EQ(asking.answer(), Answer::accepted);
}

TEST_F(RequestServerTest, ClientMayCloseItsSendingSide) {
    start();
    RawClient asking = client();
    asking.send(requestFor("/yes"));
    asking.closeSending();
    EXPECT_EQ(asking.answer(), Answer::accepted);
}

TEST_F(RequestServerTest, HalfARequestAndGoodbyeIsNoRequest) {
    start();
    RawClient asking = client();
    asking.send(requestFor("/yes").substr(0, 9));
    asking.closeSending();
    EXPECT_EQ(asking.answer(), std::nullopt);
}

TEST_F(RequestServerTest, NonsenseIsToldSo) {
    start();
    EXPECT_EQ(ask("GET / HTTP/1.0\r\n\r\n"), Answer::malformed);
    EXPECT_EQ(ask(std::string(8, '\xff')), Answer::malformed);
    EXPECT_EQ(ask(std::string(100000, '\x7f')), Answer::malformed);
    EXPECT_EQ(ask(requestFor("/yes")), Answer::accepted) << "nobody else noticed";
}

TEST_F(RequestServerTest, RandomBytesHarmNobody) {
    start();
    std::uint64_t const seed = std::random_device{}();
    std::mt19937_64 random(seed);
    for (int round = 0; round < 300; ++round) {
        std::string bytes = random() % 2 == 0 ? requestFor("/yes") : std::string();
        for (std::uint64_t length = random() % 40; length > 0; --length) {
            bytes.insert(random() % (bytes.size() + 1), 1, static_cast<char>(random()));
        }
        RawClient sending = client();
        sending.send(bytes);
        sending.closeSending();
        sending.answer();
    }
    EXPECT_EQ(ask(requestFor("/yes")), Answer::accepted) << "seed " << seed;
}

TEST_F(RequestServerTest, SilentClientLosesItsConnection) {
    m_options.requestTimeout = std::chrono::milliseconds(50);
    start();
    RawClient silent = client();
    RawClient slow = client();
    slow.send("abc");
    EXPECT_EQ(silent.answer(), std::nullopt);
    EXPECT_EQ(slow.answer(), std::nullopt);
}

TEST_F(RequestServerTest, ManySilentClientsHoldUpNobody) {
    m_options.maxClients = 20;
    start();
    std::vector<RawClient> silent;
    for (int i = 0; i < 100; ++i) {
        silent.push_back(client());
        silent.back().send("abc");
    }
    EXPECT_EQ(ask(requestFor("/yes")), Answer::accepted);
    EXPECT_EQ(silent.front().answer(), std::nullopt) << "the oldest had to make room";
}

TEST_F(RequestServerTest, SlowAnswerHoldsUpNoOtherConversation) {
    std::promise<void> begun;
    std::promise<void> release;
    m_answering = [&](ScriptRequest const&) {
        begun.set_value();
        release.get_future().wait();
        return Answer::accepted;
    };
    start();
    RawClient waiting = client();
    waiting.send(requestFor("/yes"));
    begun.get_future().wait();
    EXPECT_EQ(ask("nonsense nonsense"), Answer::malformed);
    release.set_value();
    EXPECT_EQ(waiting.answer(), Answer::accepted);
}

TEST_F(RequestServerTest, ClientThatIsGoneBeforeItsAnswerHarmsNobody) {
    std::promise<void> begun;
    std::promise<void> release;
    std::atomic<int> requests{0};
    m_answering = [&](ScriptRequest const&) {
        if (++requests == 1) {
            begun.set_value();
            release.get_future().wait();
        }
        return Answer::accepted;
    };
    start();
    {
        RawClient leaving = client();
        leaving.send(requestFor("/yes"));
        begun.get_future().wait();
    }
    release.set_value();
    EXPECT_EQ(ask(requestFor("/yes")), Answer::accepted);
    EXPECT_EQ(requests, 2);
}

TEST_F(RequestServerTest, AnswerInTheMakingIsSentBeforeTheEnd) {
    std::promise<void> begun;
    std::promise<void> release;
    m_answering = [&](ScriptRequest const&) {
        begun.set_value();
        release.get_future().wait();
        return Answer::accepted;
    };
    start();
    RawClient asking = client();
    asking.send(requestFor("/yes"));
    begun.get_future().wait();
    std::thread ending([&] { stop(); });
    release.set_value();
    EXPECT_EQ(asking.answer(), Answer::accepted);
    ending.join();
}

TEST_F(RequestServerTest, SocketFileHasItsPermissionsAndGoesAtTheEnd) {
    mode_t const before = umask(0);
    m_options.socketMode = 0640;
    start();
    umask(before);
    struct stat status {};
    ASSERT_EQ(stat(m_options.socketPath.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0640U);
    stop();
    EXPECT_FALSE(std::filesystem::exists(m_options.socketPath));
}

TEST_F(RequestServerTest, LeftoverSocketIsReplacedAndALiveOneIsNot) {
    {
        FileDescriptor const dead(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        m_options.socketPath.copy(address.sun_path, sizeof address.sun_path - 1);
        ASSERT_EQ(bind(dead.get(), reinterpret_cast<sockaddr const*>(&address), sizeof address), 0);
    }
    start();
    EXPECT_EQ(ask(requestFor("/yes")), Answer::accepted);
    try {
        RequestServer second(m_options, [](ScriptRequest const&, uid_t) { return Answer::accepted; });
        ADD_FAILURE() << "two servers on one socket";
    } catch (Exception const& refused) {
        EXPECT_THAT(refused.asString(), HasSubstr(m_options.socketPath + ": another process listens there"));
    }
    EXPECT_EQ(ask(requestFor("/yes")), Answer::accepted);
}

TEST_F(RequestServerTest, OtherFileAtThePathIsLeftAlone) {
    writeFile(m_options.socketPath, "precious");
    EXPECT_THROW(start(), Exception);
    EXPECT_EQ(readFile(m_options.socketPath), "precious");
}

TEST_F(RequestServerTest, ImpossiblePathsAreRefused) {
    m_options.socketPath = m_directory.path() + '/' + std::string(200, 'x');
    EXPECT_THROW(start(), Exception);
    m_options.socketPath = m_directory.path() + "/missing/s";
    EXPECT_THROW(start(), Exception);
}

TEST_F(RequestServerTest, OnlyNamedUsersAreListenedTo) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "only root can be somebody else";
    }
    ASSERT_EQ(chmod(m_directory.path().c_str(), 0711), 0);
    m_options.socketMode = 0666;
    m_options.users = {54321};
    m_server.emplace(m_options, [](ScriptRequest const&, uid_t user) {
        EXPECT_EQ(user, 54321U);
        return Answer::accepted;
    });
    setSocketPath(m_options.socketPath);
    EXPECT_EQ(askAs(54321, "/yes"), int(Answer::accepted));
    EXPECT_EQ(askAs(54322, "/yes"), int(Answer::notAllowed));
    setSocketPath(defaultSocketPath);
    EXPECT_TRUE(m_server->mayAsk(0));
    EXPECT_TRUE(m_server->mayAsk(54321));
    EXPECT_FALSE(m_server->mayAsk(54322));
}

} // namespace
} // namespace Vellum::DatabaseDaemon
