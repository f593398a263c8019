#include "foundation/ipc/Dispatcher.h"

#include "foundation/FileDescriptor.h"
#include "foundation/ipc/Address.h"
#include "foundation/ipc/Endpoint.h"
#include "tests/ipc/TestDispatcher.h"
#include "tests/support/DescriptorLimit.h"

#include <atomic>
#include <gtest/gtest.h>
#include <memory>
#include <stdexcept>
#include <sys/socket.h>
#include <thread>
#include <vector>

namespace Vellum::IPC {
namespace {

struct Dispatching : testing::Test, TestDispatcher {};

} // namespace

TEST_F(Dispatching, AnswersByteForByte) {
    start();
    RawClient client(port());
    client.send(std::string("\xe8\x03\0\0\x03\0\0\0abc", 11));
    EXPECT_EQ(client.read(11), std::string("\xe9\x03\0\0\x03\0\0\0abc", 11));
}

TEST_F(Dispatching, RequestSentByteByByteIsOneRequest) {
    start();
    RawClient client(port());
    for (char const byte : rawUnit(echoType, "drop by drop")) {
        client.send({&byte, 1});
    }
    EXPECT_EQ(client.read(20), rawUnit(echoType + 1, "drop by drop"));
}

TEST_F(Dispatching, ManyRequestsInOneWriteAreAnsweredInOrder) {
    start();
    std::string requests;
    std::string replies;
    for (int i = 0; i < 3000; ++i) {
        std::string const payload = std::to_string(i);
        unsigned int const type = i % 7 == 0 ? slowEchoType : echoType;
        requests += rawUnit(type, payload);
        replies += rawUnit(type + 1, payload);
    }
    RawClient client(port());
    std::thread sender([&] { client.send(requests); });
    EXPECT_EQ(client.read(replies.size()), replies);
    sender.join();
}

TEST_F(Dispatching, EmptyRequestIsARequest) {
    start();
    RawClient client(port());
    client.send(rawUnit(echoType) + rawUnit(slowEchoType));
    EXPECT_EQ(client.read(16), rawUnit(echoType + 1) + rawUnit(slowEchoType + 1));
}

TEST_F(Dispatching, UnknownTypeEndsThatConnectionOnly) {
    start();
    RawClient other(port());
    RawClient client(port());
    client.send(rawUnit(echoType, "a") + rawUnit(77, "b") + rawUnit(echoType, "c"));
    EXPECT_EQ(client.readUntilEnd(), rawUnit(echoType + 1, "a"));
    EXPECT_TRUE(log.waitForNote("unknown type 77"));
    other.send(rawUnit(echoType, "x"));
    EXPECT_EQ(other.read(9), rawUnit(echoType + 1, "x"));
}

TEST_F(Dispatching, FailedTaskEndsThatConnectionAfterWhatItSent) {
    for (bool const mayTakeLong : {false, true}) {
        unsigned int const base = mayTakeLong ? 50 : 40;
        on(base, mayTakeLong, [](SocketIPC& client, Pdu const&) {
            client << Pdu(41, Buffer("half", 4, true));
            return -1;
        });
        on(base + 1, mayTakeLong, [](SocketIPC&, Pdu const&) -> int { throw std::runtime_error("no such luck"); });
        on(base + 2, mayTakeLong, [](SocketIPC&, Pdu const&) -> int { throw 42; });
        on(base + 3, mayTakeLong, [](SocketIPC&, Pdu const&) -> int { throw Exception("someStep", 4); });
    }
    start();
    for (unsigned int const base : {40U, 50U}) {
        for (unsigned int type = base; type < base + 4; ++type) {
            RawClient client(port());
            client.send(rawUnit(type) + rawUnit(echoType, "never read"));
            EXPECT_EQ(client.readUntilEnd(), type == base ? rawUnit(41, "half") : "");
            EXPECT_TRUE(log.waitForNote("request of type " + std::to_string(type)));
        }
    }
    EXPECT_TRUE(log.waitForNote("no such luck"));
    EXPECT_TRUE(log.waitForNote("someStep"));
    EXPECT_TRUE(answers());
}

// Refuses every request, and says that its clients may go on.
class RefusingHandler : public HandlerImpl {
  public:
    RefusingHandler(unsigned int type, bool mayTakeLong, bool throws)
        : HandlerImpl(type, mayTakeLong), m_throws(throws) {}
    int task(SocketIPC&, Pdu const&) const override { return m_throws ? throw std::runtime_error("thrown") : -1; }
    bool survivesFailure() const override { return true; }

  private:
    bool m_throws;
};

TEST_F(Dispatching, TaskThatSurvivesItsFailureLeavesTheConnectionToTheNextRequest) {
    for (bool const mayTakeLong : {false, true}) {
        dispatcher.add(MyHandler<RefusingHandler>(new RefusingHandler(mayTakeLong ? 50 : 40, mayTakeLong, false)));
    }
    start();
    for (unsigned int const type : {40U, 50U}) {
        RawClient client(port());
        client.send(rawUnit(type, "refused") + rawUnit(type, "again") + rawUnit(echoType, "next"));
        EXPECT_EQ(client.read(12), rawUnit(echoType + 1, "next"));
        EXPECT_TRUE(log.waitForNote("request of type " + std::to_string(type)));
    }
}

TEST_F(Dispatching, NoTaskSurvivesAnExceptionThatItDoesNotCatch) {
    dispatcher.add(MyHandler<RefusingHandler>(new RefusingHandler(40, false, true)));
    start();
    RawClient client(port());
    client.send(rawUnit(40) + rawUnit(echoType, "never read"));
    EXPECT_EQ(client.readUntilEnd(), "");
    EXPECT_TRUE(log.waitForNote("thrown"));
    EXPECT_TRUE(answers());
}

TEST_F(Dispatching, PayloadOfOneMebibyteIsTakenAndAByteMoreIsNot) {
    start();
    std::string const payload(1U << 20, 'x');
    RawClient fitting(port());
    fitting.send(rawUnit(echoType, payload));
    EXPECT_EQ(fitting.read(8 + payload.size()), rawUnit(echoType + 1, payload));
    RawClient client(port());
    client.send(rawUnit(echoType, payload + "x").substr(0, 8));
    EXPECT_EQ(client.readUntilEnd(), "");
    EXPECT_TRUE(log.waitForNote("frame of 1048585 bytes, more than 1048584"));
    EXPECT_TRUE(answers());
}

TEST_F(Dispatching, OversizedFrameEndsThatConnectionOnly) {
    options.maxFrameBytes = 100;
    start();
    RawClient fitting(port());
    fitting.send(rawUnit(echoType, std::string(92, 'x')));
    EXPECT_EQ(fitting.read(100).size(), 100U);
    RawClient client(port());
    client.send(rawUnit(echoType, std::string(93, 'x')).substr(0, 8));
    EXPECT_EQ(client.readUntilEnd(), "");
    EXPECT_TRUE(log.waitForNote("frame of 101 bytes"));
    EXPECT_TRUE(answers());
}

TEST_F(Dispatching, GarbageEndsThatConnectionOnly) {
    start();
    RawClient client(port());
    client.send("GET / HTTP/1.1\r\nHost: localhost\r\n\r\n");
    EXPECT_EQ(client.readUntilEnd(), "");
    EXPECT_TRUE(log.waitForNote("cut off: sent a frame of"));
    EXPECT_TRUE(answers());
}

TEST_F(Dispatching, EndWithinARequestIsSaid) {
    start();
    RawClient client(port());
    client.send(rawUnit(echoType, "whole").substr(0, 10));
    client.close();
    EXPECT_TRUE(log.waitForNote("ended its connection within a request"));
}

TEST_F(Dispatching, LongTaskDoesNotHoldUpOthersButItsOwnConnection) {
    Event begun;
    Event release;
    std::atomic<int> seconds{0};
    on(60, true, [&](SocketIPC& client, Pdu const&) {
        begun.happen();
        release.wait();
        client << Pdu(61, 0);
        return 0;
    });
    on(62, false, [&](SocketIPC& client, Pdu const&) {
        ++seconds;
        client << Pdu(63, 0);
        return 0;
    });
    start();
    RawClient client(port());
    client.send(rawUnit(60) + rawUnit(62));
    begun.wait();
    EXPECT_TRUE(answers());
    EXPECT_EQ(seconds, 0) << "the next request waits for the reply";
    release.happen();
    EXPECT_EQ(client.read(16), rawUnit(61) + rawUnit(63));
}

TEST_F(Dispatching, NeitherAreManyLongTasksAnObstacle) {
    options.workers = 2;
    Event release;
    on(60, true, [&](SocketIPC& client, Pdu const&) {
        release.wait();
        client << Pdu(61, 0);
        return 0;
    });
    start();
    std::vector<std::unique_ptr<RawClient>> clients;
    for (int i = 0; i < 50; ++i) {
        clients.push_back(std::make_unique<RawClient>(port()));
        clients.back()->send(rawUnit(60));
    }
    EXPECT_TRUE(answers());
    release.happen();
    for (auto const& client : clients) {
        EXPECT_EQ(client->read(8), rawUnit(61));
    }
}

TEST_F(Dispatching, ThousandConnectionsAreServed) {
    start();
    std::vector<std::unique_ptr<RawClient>> clients;
    for (int i = 0; i < 1000; ++i) {
        clients.push_back(std::make_unique<RawClient>(port()));
    }
    for (int round = 0; round < 2; ++round) {
        for (std::size_t i = 0; i < clients.size(); ++i) {
            clients[i]->send(rawUnit(i % 10 == 0 ? slowEchoType : echoType, std::to_string(i)));
        }
        for (std::size_t i = 0; i < clients.size(); ++i) {
            std::string const expected = rawUnit(i % 10 == 0 ? slowEchoType + 1 : echoType + 1, std::to_string(i));
            ASSERT_EQ(clients[i]->read(expected.size()), expected);
        }
    }
}

TEST_F(Dispatching, ConnectionBeyondTheMostIsTurnedAway) {
    options.maxConnections = 2;
    start();
    auto first = std::make_unique<RawClient>(port());
    RawClient second(port());
    first->send(rawUnit(echoType));
    second.send(rawUnit(echoType));
    first->read(8);
    second.read(8);
    RawClient third(port());
    EXPECT_EQ(third.readUntilEnd(), "");
    EXPECT_TRUE(log.waitForNote("2 connections are open already"));
    second.send(rawUnit(echoType));
    EXPECT_EQ(second.read(8), rawUnit(echoType + 1));

    first->send(rawUnit(77)); // makes the dispatcher end it
    first->readUntilEnd();
    first->close();
    std::string reply;
    while (reply.empty()) { // until it has noticed
        RawClient next(port());
        try {
            next.send(rawUnit(echoType));
            reply = next.readUntilEndOr(8);
        } catch (std::runtime_error const&) {
        }
    }
    EXPECT_EQ(reply, rawUnit(echoType + 1));
}

TEST_F(Dispatching, ConnectionWithoutADescriptorLeftForItIsTurnedAwayAndLaterOnesAreServed) {
    start(); // nobody else: a connection that ends meanwhile would leave its descriptor
    FileDescriptor const socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    SystemAddress const target = SystemAddress::of("127.0.0.1", port());
    {
        DescriptorLimit const none;
        ASSERT_EQ(::connect(socket.get(), target.get(), target.length), 0);
        char byte = 0;
        EXPECT_LE(::recv(socket.get(), &byte, 1, 0), 0);
    }
    EXPECT_TRUE(log.waitForNote("no file descriptor is left"));
    EXPECT_TRUE(answers());
}

TEST_F(Dispatching, ConnectionThatCannotEvenBeTurnedAwayWaitsAndIsServedLater) {
    start();
    FileDescriptor const socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    SystemAddress const target = SystemAddress::of("127.0.0.1", port());
    std::string const request = rawUnit(echoType, "hello");
    {
        DescriptorLimit const none(0); // as when another thread takes the spare one at the moment it is given up
        ASSERT_EQ(::connect(socket.get(), target.get(), target.length), 0);
        ASSERT_EQ(::send(socket.get(), request.data(), request.size(), 0), static_cast<ssize_t>(request.size()));
        EXPECT_TRUE(log.waitForNote("a connection has to wait: no file descriptor is left for it"));
    }
    std::string reply(request.size(), 0);
    EXPECT_EQ(::recv(socket.get(), reply.data(), reply.size(), MSG_WAITALL), static_cast<ssize_t>(reply.size()));
    EXPECT_EQ(reply, rawUnit(echoType + 1, "hello"));

    // The spare descriptor is back: the next one is turned away.
    FileDescriptor const next(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    DescriptorLimit const none;
    ASSERT_EQ(::connect(next.get(), target.get(), target.length), 0);
    char byte = 0;
    EXPECT_LE(::recv(next.get(), &byte, 1, 0), 0);
    EXPECT_TRUE(log.waitForNote("a connection was turned away: no file descriptor is left for it"));
}

TEST_F(Dispatching, LastDescriptorIsNoTrouble) {
    start();
    FileDescriptor const socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    SystemAddress const target = SystemAddress::of("127.0.0.1", port());
    std::string const request = rawUnit(echoType, "hello");
    {
        DescriptorLimit const one(lowestFreeDescriptor() + 1);
        ASSERT_EQ(::connect(socket.get(), target.get(), target.length), 0);
        ASSERT_EQ(::send(socket.get(), request.data(), request.size(), 0), static_cast<ssize_t>(request.size()));
        std::string reply(request.size(), 0);
        EXPECT_EQ(::recv(socket.get(), reply.data(), reply.size(), MSG_WAITALL), static_cast<ssize_t>(reply.size()));
    }
    EXPECT_TRUE(answers());
    EXPECT_TRUE(log.notes().empty());
}

TEST_F(Dispatching, FloodOfBadClientsDoesNotFloodTheLog) {
    start();
    for (int i = 0; i < 200; ++i) {
        RawClient client(port());
        client.send(rawUnit(77));
        EXPECT_EQ(client.readUntilEnd(), "");
    }
    EXPECT_TRUE(answers());
    EXPECT_GE(log.notes().size(), 1U);
    EXPECT_LE(log.notes().size(), 40U) << "20 a minute, and this test may see the minute change";
}

TEST_F(Dispatching, UnfinishedRequestIsNotWaitedForButSilenceIs) {
    options.frameTimeout = std::chrono::milliseconds(50);
    start();
    RawClient silent(port());
    silent.send(rawUnit(echoType));
    silent.read(8);
    RawClient unfinished(port());
    unfinished.send(rawUnit(echoType, "1") + rawUnit(echoType, "2").substr(0, 8));
    EXPECT_EQ(unfinished.readUntilEnd(), rawUnit(echoType + 1, "1"));
    EXPECT_TRUE(log.waitForNote("did not finish a request within 50 ms"));
    silent.send(rawUnit(echoType, "still here"));
    EXPECT_EQ(silent.read(18), rawUnit(echoType + 1, "still here"));
}

TEST_F(Dispatching, OneByteNowAndThenDoesNotProlongARequest) {
    options.frameTimeout = std::chrono::milliseconds(100);
    start();
    RawClient client(port());
    std::string const raw = rawUnit(echoType, std::string(1000, 'x'));
    std::thread dripping([&] {
        try {
            for (char const byte : raw) {
                client.send({&byte, 1});
                std::this_thread::sleep_for(std::chrono::milliseconds(10)); // each well within the time
            }
        } catch (std::runtime_error const&) { // cut off, as it should be
        }
    });
    EXPECT_EQ(client.readUntilEnd(), "");
    dripping.join();
}

TEST_F(Dispatching, ClientThatOnlyShutsDownItsSendingSideGetsItsReplies) {
    start();
    RawClient client(port());
    client.send(rawUnit(echoType, "a") + rawUnit(slowEchoType, "b") + rawUnit(echoType, "c"));
    client.shutdownSending();
    EXPECT_EQ(client.readUntilEnd(),
              rawUnit(echoType + 1, "a") + rawUnit(slowEchoType + 1, "b") + rawUnit(echoType + 1, "c"));
}

TEST_F(Dispatching, RequestOfAClientThatHasGoneIsStillHandled) {
    Event handled;
    on(70, true, [&](SocketIPC&, Pdu const&) {
        handled.happen();
        return 0;
    });
    start();
    Endpoint::map(29001, "127.0.0.1", port());
    {
        SocketIPC client;
        client.connect(29001);
        client << Pdu(70, 0);
    }
    handled.wait();
    Endpoint::unmap(29001);
}

TEST_F(Dispatching, RepliesThatNobodyReadsHoldNoMoreThanTheBoundAndAreNotLost) {
    std::atomic<int> handled{0};
    std::string const kilobyte(1024, 'k');
    on(70, false, [&](SocketIPC& client, Pdu const&) {
        ++handled;
        client << Pdu(71, Buffer(kilobyte.data(), 1024, true));
        return 0;
    });
    options.outputBound = 256U << 10;
    start();
    constexpr int requests = 60'000; // their replies are more than any kernel buffer takes
    RawClient client(port(), "127.0.0.1", 4096);
    std::thread sender([&] {
        std::string all;
        for (int i = 0; i < requests; ++i) {
            all += rawUnit(70);
        }
        client.send(all);
    });
    EXPECT_TRUE(answers());
    std::string const reply = rawUnit(71, kilobyte);
    for (int i = 0; i < requests; ++i) {
        ASSERT_EQ(client.read(reply.size()), reply) << i;
    }
    sender.join();
    EXPECT_EQ(handled, requests);
    EXPECT_TRUE(log.notes().empty());
}

TEST_F(Dispatching, ReplyOfAShortTaskBeyondTheBoundEndsTheConnection) {
    on(70, false, [&](SocketIPC& client, Pdu const&) {
        std::string const piece(1U << 20, 'x');
        for (int i = 0; i < 200; ++i) { // never waits: this is the thread that serves everybody
            client << Pdu(71, Buffer(piece.data(), 1U << 20, true));
        }
        return 0;
    });
    start();
    RawClient client(port(), "127.0.0.1", 4096);
    client.send(rawUnit(70));
    EXPECT_TRUE(log.waitForNote("does not take its replies"));
    EXPECT_TRUE(answers());
}

TEST_F(Dispatching, ReplyThatIsNotTakenInTimeEndsTheConnection) {
    options.drainTimeout = std::chrono::milliseconds(50);
    options.outputBound = options.outputBudget = 256U << 20;
    on(70, true, [&](SocketIPC& client, Pdu const&) {
        std::string const piece(1U << 20, 'x');
        for (int i = 0; i < 128; ++i) {
            client << Pdu(71, Buffer(piece.data(), 1U << 20, true));
        }
        return 0;
    });
    start();
    RawClient client(port(), "127.0.0.1", 4096);
    client.send(rawUnit(70));
    EXPECT_TRUE(log.waitForNote("did not take its reply within 50 ms"));
    EXPECT_TRUE(answers());
}

TEST_F(Dispatching, LaterHandlerOfATypeReplacesTheEarlier) {
    on(echoType, false, [](SocketIPC& client, Pdu const&) {
        client << Pdu(9999, 0);
        return 0;
    });
    start();
    RawClient client(port());
    client.send(rawUnit(echoType));
    EXPECT_EQ(client.read(8), rawUnit(9999));
}

TEST_F(Dispatching, HandlerMayBeAddedWhileItServes) {
    start();
    EXPECT_TRUE(answers());
    on(80, true, [](SocketIPC& client, Pdu const&) {
        client << Pdu(81, 0);
        return 0;
    });
    RawClient client(port());
    client.send(rawUnit(80));
    EXPECT_EQ(client.read(8), rawUnit(81));
}

TEST_F(Dispatching, StopEndsConnectionsAndTasksThatWait) {
    Event begun;
    on(70, true, [&](SocketIPC& client, Pdu const&) -> int {
        begun.happen();
        std::string const piece(64U << 10, 'x');
        for (;;) {
            client << Pdu(71, Buffer(piece.data(), 64U << 10, true)); // until it throws
        }
    });
    options.stallTimeout = options.waitTimeout = std::chrono::hours(1);
    start();
    RawClient idle(port());
    idle.send(rawUnit(echoType));
    idle.read(8);
    RawClient listing(port());
    listing.send(rawUnit(70));
    begun.wait();
    dispatcher.stop();
    EXPECT_EQ(idle.readUntilEnd(), "");
    EXPECT_EQ(dispatcher.boundPort(), 0U);
}

TEST_F(Dispatching, StartsAgainOnTheSamePort) {
    start();
    unsigned int const before = port();
    RawClient client(before);
    client.send(rawUnit(echoType));
    client.read(8);
    dispatcher.stop(); // ends the connection first, so this end of it stays in the kernel for a while
    options.port = static_cast<int>(before);
    start();
    EXPECT_EQ(port(), before);
    EXPECT_TRUE(answers());
}

TEST_F(Dispatching, PortInUseIsRefusedByName) {
    start();
    Dispatcher second(29002);
    DispatcherOptions taken;
    taken.port = static_cast<int>(port());
    try {
        second.start(taken);
        FAIL() << "two on one port";
    } catch (Exception const& refused) {
        EXPECT_NE(refused.asString().find("port " + std::to_string(port()) + " of 127.0.0.1 is in use"),
                  std::string::npos)
            << refused.asString();
    }
    EXPECT_EQ(second.boundPort(), 0U);
    EXPECT_TRUE(answers());
}

TEST_F(Dispatching, AddressThatIsNoneIsRefused) {
    options.addresses = {"localhost"};
    EXPECT_THROW(start(), Exception);
    options.addresses = {};
    EXPECT_THROW(start(), Exception);
    options.addresses = {"192.0.2.1"}; // not of this machine
    EXPECT_THROW(start(), Exception);
}

TEST_F(Dispatching, ListensOnBothLoopbacksWithOnePort) {
    options.addresses = {"127.0.0.1", "::1"};
    start();
    EXPECT_TRUE(answers("127.0.0.1"));
    EXPECT_TRUE(answers("::1"));
}

TEST_F(Dispatching, ListensOnTheIPv4LoopbackOnlyUnlessAsked) {
    start();
    EXPECT_THROW(RawClient(port(), "::1"), std::runtime_error);
    EXPECT_THROW(RawClient(port(), "127.0.0.2"), std::runtime_error);
}

TEST(Dispatchers, TwoInOneProcessAreIndependent) {
    TestDispatcher first;
    IPC::Dispatcher second(29011);
    second.add(MyHandler<FunctionHandler>(new FunctionHandler(90, false, [](SocketIPC& client, Pdu const&) {
        client << Pdu(91, 0);
        return 0;
    })));
    first.start();
    second.start(first.options);
    EXPECT_NE(first.port(), second.boundPort());
    RawClient ofSecond(second.boundPort());
    ofSecond.send(rawUnit(90));
    EXPECT_EQ(ofSecond.read(8), rawUnit(91));
    RawClient ofFirst(first.port());
    ofFirst.send(rawUnit(90));
    EXPECT_EQ(ofFirst.readUntilEnd(), "") << "not a request of that one";
    EXPECT_TRUE(first.log.waitForNote("unknown type 90"));
    second.stop();
    EXPECT_TRUE(first.answers());
}

TEST(Dispatchers, InstanceIsOnePerNumber) {
    EXPECT_EQ(&Dispatcher::instance(29001), &Dispatcher::instance(stateDaemonPort));
    EXPECT_NE(&Dispatcher::instance(29001), &Dispatcher::instance(29012));
    EXPECT_EQ(Dispatcher::instance(29012).boundPort(), 0U);
}

} // namespace Vellum::IPC
