// The client's side, against a dispatcher and against a peer that misbehaves.
#include "foundation/ipc/SocketIPC.h"

#include "foundation/Exception.h"
#include "foundation/FileDescriptor.h"
#include "foundation/ipc/Address.h"
#include "foundation/ipc/ClientSocket.h"
#include "foundation/ipc/Endpoint.h"
#include "foundation/ipc/Listing.h"
#include "tests/ipc/TestDispatcher.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace Vellum::IPC {
namespace {

constexpr int registryNumber = 29021; // used by nobody else in this process

std::string failureOf(std::function<void()> const& action) {
    try {
        action();
    } catch (Exception const& failed) {
        return failed.asString();
    }
    return "no failure";
}

struct Client : testing::Test {
    SocketIPC client;
    Pdu reply{PduType::receiveBuffer, 1024};

    ~Client() override { Endpoint::unmap(registryNumber); }
};

struct ClientOfDispatcher : Client, TestDispatcher {
    void connect() {
        start();
        Endpoint::map(registryNumber, "127.0.0.1", port());
        client.connect(registryNumber);
    }
    ~ClientOfDispatcher() override { client.close(); }
};

// Accepts one connection and does with it what a test wants.
struct ClientOfStranger : Client {
    FileDescriptor listener{::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)};
    FileDescriptor peer;

    void connect() {
        SystemAddress const any = SystemAddress::of("127.0.0.1", 0);
        ASSERT_EQ(::bind(listener.get(), any.get(), any.length), 0);
        ASSERT_EQ(::listen(listener.get(), 1), 0);
        Endpoint::map(registryNumber, "127.0.0.1", SystemAddress::local(listener.get()).value().port());
        client.connect(registryNumber);
        peer = FileDescriptor(::accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
    }
    void peerSends(std::string const& bytes) {
        ASSERT_EQ(::send(peer.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL), static_cast<ssize_t>(bytes.size()));
    }
};

} // namespace

TEST_F(ClientOfDispatcher, SendsAndReceivesUnits) {
    connect();
    for (std::string const text : {"", "a", "a longer one"}) {
        client << Pdu(echoType, Buffer(text.data(), static_cast<unsigned>(text.size()), true));
        client >> reply;
        EXPECT_EQ(reply.type(), echoType + 1);
        EXPECT_EQ(reply.data().view(), text);
    }
}

TEST_F(ClientOfDispatcher, ReceivesUnitsLongerThanTheBufferItBrought) {
    connect();
    std::string const text(700'000, 'x');
    client << Pdu(slowEchoType, Buffer(text.data(), 700'000, true));
    client >> reply;
    EXPECT_EQ(reply.data().view(), text);
}

TEST_F(ClientOfDispatcher, ReceivesAListingWhole) {
    constexpr std::uint64_t records = 200'000;
    on(5, true, [&](SocketIPC& to, Pdu const&) {
        Listing listing(to, records);
        for (std::uint64_t i = 0; i < records; ++i) {
            listing.send(PduType::tupleRecord, i);
        }
        listing.end();
        return 0;
    });
    connect();
    client << Pdu(PduType::listTuples, 0);
    client >> reply;
    EXPECT_EQ(payloadAs<std::int32_t>(reply), 200'000);
    for (std::uint64_t i = 0; i < records; ++i) {
        client >> reply;
        ASSERT_TRUE(reply.is(PduType::tupleRecord));
        ASSERT_EQ(payloadAs<std::uint64_t>(reply), i);
    }
    client >> reply;
    EXPECT_TRUE(reply.is(PduType::endOfListing));
    EXPECT_FALSE(client.socket().dataWaiting());
}

TEST_F(ClientOfDispatcher, NoticesThatTheDaemonEnded) {
    connect();
    client << Pdu(echoType, 0);
    client >> reply;
    dispatcher.stop();
    std::string const failure = failureOf([&] { client >> reply; });
    EXPECT_NE(failure.find("ended the connection"), std::string::npos) << failure;
}

TEST_F(ClientOfDispatcher, MayConnectAgain) {
    connect();
    client.connect(registryNumber);
    client << Pdu(echoType, 0);
    client >> reply;
    EXPECT_EQ(reply.type(), echoType + 1);
}

TEST_F(Client, UnconnectedOneRefusesByName) {
    EXPECT_FALSE(client.isConnected());
    EXPECT_NE(failureOf([&] { client << Pdu(4, 0); }).find("not connected"), std::string::npos);
    EXPECT_NE(failureOf([&] { client >> reply; }).find("not connected"), std::string::npos);
}

TEST_F(Client, NobodyListeningIsSaidWithThePlace) {
    unsigned int port = 0;
    {
        FileDescriptor const free(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        SystemAddress const any = SystemAddress::of("127.0.0.1", 0);
        ASSERT_EQ(::bind(free.get(), any.get(), any.length), 0);
        port = SystemAddress::local(free.get()).value().port();
    }
    Endpoint::map(registryNumber, "127.0.0.1", port);
    std::string const failure = failureOf([&] { client.connect(registryNumber); });
    EXPECT_NE(failure.find("state daemon at 127.0.0.1:" + std::to_string(port) + ": Connection refused"),
              std::string::npos)
        << failure;
    EXPECT_FALSE(client.isConnected());
}

TEST_F(ClientOfStranger, DoesNotWaitForEverForAReply) {
    client.timeouts({.receive = std::chrono::milliseconds(30)});
    connect();
    peerSends(rawUnit(4).substr(0, 7));
    std::string const failure = failureOf([&] { client >> reply; });
    EXPECT_NE(failure.find("no answer within 0.0 s"), std::string::npos) << failure;
}

TEST_F(ClientOfStranger, DoesNotWaitForEverToSend) {
    client.timeouts({.send = std::chrono::milliseconds(30)});
    connect();
    std::string const megabyte(1U << 20, 'x');
    std::string const failure = failureOf([&] {
        for (int i = 0; i < 200; ++i) {
            client << Pdu(1, Buffer(megabyte.data(), 1U << 20, true));
        }
    });
    EXPECT_NE(failure.find("SocketIPC::send"), std::string::npos) << failure;
}

TEST_F(ClientOfStranger, UnitSplitAnywhereIsOneUnit) {
    connect();
    std::string const raw = rawUnit(6, "some record");
    std::thread sender([&] {
        for (char const byte : raw + raw) {
            ::send(peer.get(), &byte, 1, MSG_NOSIGNAL);
        }
    });
    for (int i = 0; i < 2; ++i) {
        client >> reply;
        EXPECT_EQ(reply.type(), 6U);
        EXPECT_EQ(reply.data().view(), "some record");
    }
    sender.join();
}

TEST_F(ClientOfStranger, EndWithinAUnitIsSaid) {
    connect();
    peerSends(rawUnit(6, "some record").substr(0, 12));
    peer.reset();
    std::string const failure = failureOf([&] { client >> reply; });
    EXPECT_NE(failure.find("within a unit"), std::string::npos) << failure;
}

TEST_F(ClientOfStranger, UnitBeyondReasonIsRefusedNotAllocated) {
    connect();
    peerSends("HTTP/1.1 400 Bad Request\r\n");
    std::string const failure = failureOf([&] { client >> reply; });
    EXPECT_NE(failure.find("none of this protocol"), std::string::npos) << failure;
}

// The room grows with what arrives: once, twice, not at all, and with a unit begun before it.
TEST(ClientSocket, TakesLongUnitsOverAConnectionThatStandsAlready) {
    int ends[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    FileDescriptor const peer(ends[1]);
    ClientSocket client({.host = "127.0.0.1", .port = 29021}, FileDescriptor(ends[0]), {});
    std::vector<std::string> sent;
    for (std::size_t const length : {1U, 262'136U, 262'137U, 3U, 1'500'000U, 700'000U, 0U, 2'000'000U}) {
        sent.emplace_back(length, static_cast<char>('a' + sent.size()));
    }
    std::thread sender([&] {
        for (std::string const& text : sent) {
            char header[Pdu::headerSize];
            Pdu::writeHeader(header, 4, static_cast<std::uint32_t>(text.size()));
            std::string const bytes = std::string(header, sizeof header) + text;
            for (std::size_t done = 0; done < bytes.size();) {
                ssize_t const taken = ::send(peer.get(), bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
                ASSERT_GT(taken, 0);
                done += static_cast<std::size_t>(taken);
            }
        }
    });
    Pdu unit(PduType::receiveBuffer, 0);
    for (std::string const& text : sent) {
        client.receive(unit);
        EXPECT_TRUE(unit.data().view() == text) << text.size();
    }
    sender.join();
}

TEST_F(ClientOfStranger, DataWaitingTellsOfUnitsAndOfTheEnd) {
    connect();
    EXPECT_FALSE(client.socket().dataWaiting());
    peerSends(rawUnit(6) + rawUnit(4));
    client >> reply;
    EXPECT_TRUE(client.socket().dataWaiting()) << "in our own buffer";
    client >> reply;
    EXPECT_FALSE(client.socket().dataWaiting());
    peer.reset();
    EXPECT_TRUE(client.socket().dataWaiting());
}

TEST_F(ClientOfStranger, StaysUntilItsLastRequestWasServed) {
    connect();
    client << Pdu(19, 0);
    std::thread closing([&] { client.close(); });
    char bytes[16];
    ASSERT_EQ(::recv(peer.get(), bytes, 8, MSG_WAITALL), 8);
    EXPECT_EQ(::recv(peer.get(), bytes, 8, 0), 0) << "it has said that no more comes";
    peer.reset();
    closing.join();
}

TEST(Endpoint, IsTheLoopbackAndTheNumberUnlessMapped) {
    EXPECT_EQ(Endpoint::of(29031).asString(), "127.0.0.1:29031");
    Endpoint::map(29031, "::1", 4711);
    EXPECT_EQ(Endpoint::of(29031).asString(), "[::1]:4711");
    EXPECT_EQ(Endpoint::of(29032).port, 29032U) << "others stay where they are";
    Endpoint::unmap(29031);
    EXPECT_EQ(Endpoint::of(29031).asString(), "127.0.0.1:29031");
}

} // namespace Vellum::IPC
