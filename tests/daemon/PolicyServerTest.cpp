#include "tests/daemon/PolicyServerFixture.h"

#include "foundation/Exception.h"
#include "tests/support/DescriptorLimit.h"

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <fstream>
#include <future>
#include <mutex>
#include <poll.h>
#include <random>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

using namespace Vellum;
using namespace Vellum::Daemon;

namespace {

// Whether this process has a thread of that name.
bool hasThread(std::string const& name) {
    for (auto const& task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::string found;
        std::getline(std::ifstream(task.path() / "comm"), found);
        if (found == name) {
            return true;
        }
    }
    return false;
}

} // namespace

TEST_F(PolicyServerTest, AnswersOverTcpAndOverAUnixSocket) {
    start();
    EXPECT_EQ(PolicyClient::connected(tcp()).ask(requestFrom("one")), "one");
    EXPECT_EQ(PolicyClient::connected(unixSocket()).ask(requestFrom("two")), "two");
    EXPECT_EQ(unixSocket().asString(), "unix:" + file("policy"));
    EXPECT_NE(tcp().inet.port(), 0U);
}

TEST_F(PolicyServerTest, AConnectionServesRequestAfterRequest) {
    start();
    PolicyClient client = connect();
    for (int i = 0; i < 100; ++i) {
        ASSERT_EQ(client.ask(requestFrom(std::to_string(i))), std::to_string(i));
    }
    EXPECT_EQ(server.figures().requests, 100U);
    EXPECT_EQ(server.figures().accepted, 1U);
}

TEST_F(PolicyServerTest, ARequestMaySplitAnywhere) {
    start({.workers = 1});
    PolicyClient client = connect();
    PolicyClient other = connect();
    std::string const request = requestFrom("split");
    for (std::size_t split = 1; split < request.size(); ++split) {
        client.send(request.substr(0, split));
        // One thread serves both, so it is past the first piece when it answers this one.
        ASSERT_EQ(other.ask(requestFrom("other")), "other");
        ASSERT_EQ(client.ask(request.substr(split)), "split") << split;
    }
}

TEST_F(PolicyServerTest, ManyRequestsAtOnceAreAnsweredInOrder) {
    start();
    PolicyClient client = connect();
    std::string requests;
    for (int i = 0; i < 5000; ++i) {
        requests += requestFrom(std::to_string(i));
    }
    std::thread sender([&] { client.send(requests); });
    for (int i = 0; i < 5000; ++i) {
        EXPECT_EQ(client.answer(), std::to_string(i));
    }
    sender.join();
}

TEST_F(PolicyServerTest, RandomPiecesOnManyConnectionsGetTheirAnswers) {
    start({.workers = 2});
    unsigned int const seed = std::random_device()();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    std::vector<PolicyClient> clients;
    std::vector<std::string> streams(20);
    for (std::size_t i = 0; i < streams.size(); ++i) {
        clients.push_back(PolicyClient::connected(i % 2 == 0 ? tcp() : unixSocket()));
        for (int n = 0; n < 50; ++n) {
            streams[i] += requestFrom(std::to_string(i) + '/' + std::to_string(n));
        }
    }
    std::vector<std::size_t> sent(streams.size());
    for (std::size_t left = streams.size(); left > 0;) {
        std::size_t const i = random() % streams.size();
        std::string const piece = streams[i].substr(sent[i], 1 + random() % 300);
        clients[i].send(piece);
        sent[i] += piece.size();
        left -= !piece.empty() && sent[i] == streams[i].size() ? 1 : 0;
    }
    for (std::size_t i = 0; i < streams.size(); ++i) {
        for (int n = 0; n < 50; ++n) {
            ASSERT_EQ(clients[i].answer(), std::to_string(i) + '/' + std::to_string(n));
        }
    }
}

TEST_F(PolicyServerTest, OfManyThatAreReadyAtOnceABrokenOneLeavesTheOthers) {
    start({.workers = 1});
    std::promise<void> inAnswerer;
    std::promise<void> goOn;
    answerer.before = [&](PolicyRequest const& request) {
        if (request[PolicyAttribute::sender] == "wait") {
            inAnswerer.set_value();
            goOn.get_future().wait();
        }
    };
    std::vector<PolicyClient> clients;
    for (int i = 0; i < 40; ++i) {
        clients.push_back(connect());
    }
    PolicyClient first = connect();
    first.send(requestFrom("wait"));
    inAnswerer.get_future().wait();
    // All of these are ready when the worker looks again.
    for (std::size_t i = 0; i < clients.size(); ++i) {
        clients[i].send(i % 4 == 0   ? requestFrom("ok") + "broken\n"
                        : i % 4 == 1 ? requestFrom("!throw")
                        : i % 4 == 2 ? "sender="
                                     : requestFrom("fine"));
    }
    clients[2].finish();
    goOn.set_value();
    EXPECT_EQ(first.answer(), "wait");
    for (std::size_t i = 0; i < clients.size(); ++i) {
        if (i == 2) {
            EXPECT_EQ(clients[i].answer(), "closed");
        } else if (i % 4 == 0) {
            EXPECT_EQ(clients[i].answer(), "ok");
            EXPECT_EQ(clients[i].answer(), "closed");
        } else if (i % 4 == 1) {
            EXPECT_EQ(clients[i].answer(), "DUNNO");
        } else {
            EXPECT_EQ(i % 4 == 2 ? clients[i].ask("late\n\n") : clients[i].answer(), i % 4 == 2 ? "late" : "fine");
        }
    }
    EXPECT_EQ(server.figures().protocolErrors, 10U);
    EXPECT_EQ(server.figures().failedAnswers, 10U);
}

TEST_F(PolicyServerTest, EachConnectionHasAMemoryOfItsOwn) {
    start({.workers = 1});
    PolicyClient one = connect();
    PolicyClient two = connect();
    EXPECT_EQ(one.ask(requestFrom("!memory")), "");
    EXPECT_EQ(one.ask(requestFrom("a")), "a");
    EXPECT_EQ(two.ask(requestFrom("b")), "b");
    EXPECT_EQ(one.ask(requestFrom("!memory")), "a");
    EXPECT_EQ(two.ask(requestFrom("!memory")), "b");
}

TEST_F(PolicyServerTest, AClientThatOnlyClosesItsSendingSideGetsItsAnswers) {
    start();
    PolicyClient client = connect();
    client.send(requestFrom("a") + requestFrom("b"));
    client.finish();
    EXPECT_EQ(client.answer(), "a");
    EXPECT_EQ(client.answer(), "b");
    EXPECT_EQ(client.answer(), "closed");
    EXPECT_TRUE(log.notes().empty());
}

TEST_F(PolicyServerTest, AClientThatSaysNothingDisturbsNobodyAndIsKept) {
    start({.workers = 1});
    PolicyClient silent = connect();
    PolicyClient halfWay = connect();
    halfWay.send("sender=half");
    for (int i = 0; i < 100; ++i) {
        ASSERT_EQ(connect().ask(requestFrom("x")), "x");
    }
    EXPECT_EQ(silent.ask(requestFrom("at last")), "at last");
    EXPECT_EQ(halfWay.ask("-way\n\n"), "half-way");
}

TEST_F(PolicyServerTest, AClientThatDoesNotReadIsNotReadFromAndLosesNothing) {
    start({.workers = 1});
    PolicyClient lazy(unixSocket());
    int const small = 4096;
    setsockopt(lazy.socket(), SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
    lazy.connect();
    std::string const request = requestFrom("!long");
    std::size_t const enough = std::size_t{64} << 20;
    std::size_t sent = 0;
    pollfd writable{lazy.socket(), POLLOUT, 0};
    // It is over when the kernel has taken nothing for a while, or, wrongly, if it takes everything.
    while (sent < enough && poll(&writable, 1, 300) > 0) {
        sent += lazy.sendSome(std::string_view(request).substr(sent % request.size()));
    }
    EXPECT_LT(sent, std::size_t{8} << 20) << "requests are read although answers are not taken";
    EXPECT_EQ(connect().ask(requestFrom("other")), "other");

    std::thread rest([&] { lazy.send(request.substr(sent % request.size())); });
    for (std::size_t i = 0; i < sent / request.size() + 1; ++i) {
        ASSERT_EQ(lazy.answer(), std::string(1000, 'x')) << i;
    }
    rest.join();
    EXPECT_EQ(lazy.ask(requestFrom("and on")), "and on");
}

TEST_F(PolicyServerTest, FiveThousandConnectionsAreServed) {
    DescriptorLimit const limit(11000);
    std::size_t const count = std::min<std::size_t>(5000, (limit.value() - 500) / 2);
    start();
    std::vector<PolicyClient> clients;
    for (std::size_t i = 0; i < count; ++i) {
        clients.push_back(PolicyClient::connected(i % 2 == 0 ? tcp() : unixSocket()));
    }
    for (int round = 0; round < 2; ++round) {
        for (std::size_t i = 0; i < count; ++i) {
            clients[i].send(requestFrom(std::to_string(i)));
        }
        for (std::size_t i = 0; i < count; ++i) {
            ASSERT_EQ(clients[i].answer(), std::to_string(i));
        }
    }
    EXPECT_EQ(server.figures().connections, count);
    EXPECT_EQ(server.figures().requests, 2 * count);
    clients.clear();
    EXPECT_TRUE(eventually([](auto const& figures) { return figures.connections == 0; }));
    EXPECT_TRUE(log.notes().empty());
}

TEST_F(PolicyServerTest, WorkersAreFilledOneAfterTheOtherAndThenEvenly) {
    start({.workers = 3});
    std::mutex mutex;
    std::vector<std::thread::id> threads; // in the order in which they got their first connection
    std::vector<int> served;
    answerer.before = [&](PolicyRequest const&) {
        std::lock_guard<std::mutex> const holding(mutex);
        auto const found = std::find(threads.begin(), threads.end(), std::this_thread::get_id());
        if (found == threads.end()) {
            threads.push_back(std::this_thread::get_id());
            served.push_back(1);
        } else {
            ++served[static_cast<std::size_t>(found - threads.begin())];
        }
    };
    std::vector<PolicyClient> clients;
    auto const connectUpTo = [&](std::size_t count) {
        while (clients.size() < count) {
            clients.push_back(connect());
            EXPECT_EQ(clients.back().ask(requestFrom("x")), "x");
        }
        return served;
    };
    EXPECT_EQ(connectUpTo(8), (std::vector<int>{8}));
    EXPECT_EQ(connectUpTo(9), (std::vector<int>{8, 1}));
    EXPECT_EQ(connectUpTo(24), (std::vector<int>{8, 8, 8}));
    EXPECT_EQ(connectUpTo(31), (std::vector<int>{11, 10, 10}));
}

// ---- what breaks

TEST_F(PolicyServerTest, BrokenProtocolEndsThatConnectionWithOneLine) {
    start({.workers = 1});
    PolicyClient good = connect();
    PolicyClient bad = connect();
    bad.send(requestFrom("before") + "GET / HTTP/1.1\r\nHost: x\r\n\r\n");
    EXPECT_EQ(bad.answer(), "before") << "what came complete is answered";
    EXPECT_EQ(bad.answer(), "closed");
    EXPECT_EQ(good.ask(requestFrom("good")), "good");
    EXPECT_EQ(log.notes(),
              std::vector<std::string>{"policy: " + bad.name() + " broke the protocol, connection closed: " +
                                       R"(line 1 "GET / HTTP/1.1\r" is not name=value)"});
    EXPECT_EQ(server.figures().protocolErrors, 1U);
}

TEST_F(PolicyServerTest, APeerOfAUnixSocketIsNamedByItsProcess) {
    start();
    PolicyClient bad = PolicyClient::connected(unixSocket());
    bad.send(std::string("a=\0", 3));
    EXPECT_EQ(bad.answer(), "closed");
    EXPECT_EQ(log.notes(), std::vector<std::string>{
                               "policy: process " + std::to_string(getpid()) + " of user " + std::to_string(getuid()) +
                               R"( broke the protocol, connection closed: line 1 "a=\x00" contains a NUL byte)"});
}

TEST_F(PolicyServerTest, AnEndlessRequestEndsTheConnection) {
    start();
    PolicyClient bad = connect();
    bad.send("sender=" + std::string(65536 - 7, 'x'));
    EXPECT_EQ(bad.answer(), "closed");
    EXPECT_EQ(notes("broke the protocol, connection closed: no empty line within 65536 bytes"), 1U);
}

TEST_F(PolicyServerTest, BrokenProtocolIsLoggedTenTimesAMinuteAtMost) {
    start();
    for (int i = 0; i < 30; ++i) {
        PolicyClient bad = connect();
        bad.send("nonsense\n");
        ASSERT_EQ(bad.answer(), "closed");
    }
    EXPECT_EQ(notes("nonsense"), 10U);
    EXPECT_EQ(server.figures().protocolErrors, 30U);
}

TEST_F(PolicyServerTest, AClientThatLeavesInTheMiddleOfARequestIsNoted) {
    start();
    PolicyClient client = connect();
    std::string const name = client.name();
    EXPECT_EQ(client.ask(requestFrom("a")), "a");
    client.send("sender=b\n");
    client.finish();
    EXPECT_EQ(client.answer(), "closed");
    EXPECT_EQ(log.notes(),
              std::vector<std::string>{"policy: " + name + " closed its connection after 9 bytes of a request"});
}

TEST_F(PolicyServerTest, AFailingAnswererMeansDunno) {
    start();
    PolicyClient client = connect();
    for (char const* sender : {"!throw", "!throw-number", "!silent", "!garbage", "!two"}) {
        EXPECT_EQ(client.ask(requestFrom("fine") + requestFrom(sender) + requestFrom("next")), "fine") << sender;
        EXPECT_EQ(client.answer(), "DUNNO") << sender;
        EXPECT_EQ(client.answer(), "next") << sender;
    }
    std::string const begin = "policy: no decision for " + client.name() + ", answered DUNNO: ";
    EXPECT_EQ(log.notes(), (std::vector<std::string>{begin + "no memory for tuples", begin + "unknown exception",
                                                     begin + "no answer was given", begin + "no answer was given",
                                                     begin + "no answer was given"}));
    EXPECT_EQ(server.figures().failedAnswers, 5U);
}

TEST_F(PolicyServerTest, BeyondTheMaximumNewConnectionsAreClosedAndThatIsSaidOnce) {
    start({.maxConnections = 2, .silentGrace = std::chrono::hours(1)});
    PolicyClient first = connect();
    PolicyClient second = connect();
    EXPECT_EQ(first.ask(requestFrom("a")), "a");
    PolicyClient third = connect();
    EXPECT_EQ(third.answer(), "closed");
    EXPECT_EQ(connect().answer(), "closed");
    EXPECT_EQ(log.notes(), std::vector<std::string>{"policy: 2 connections are open, the most allowed; closing new "
                                                    "ones, the first from " +
                                                    third.name()});
    EXPECT_EQ(server.figures().refused, 2U);
    EXPECT_EQ(second.ask(requestFrom("b")), "b") << "those that are there stay";

    first.close();
    ASSERT_TRUE(eventually([](auto const& figures) { return figures.connections == 1; }));
    EXPECT_EQ(connect().ask(requestFrom("c")), "c");
    EXPECT_EQ(log.notes().back(), "policy: there is room for new connections again");
}

TEST_F(PolicyServerTest, RoomAfterTheMaximumIsToldWithoutAnotherClient) {
    start({.maxConnections = 1});
    {
        PolicyClient only = connect();
        EXPECT_EQ(only.ask(requestFrom("a")), "a");
        EXPECT_EQ(connect().answer(), "closed");
    }
    EXPECT_TRUE(log.waitForNote("policy: there is room for new connections again"));
}

TEST_F(PolicyServerTest, AtTheMaximumASilentConnectionMakesRoom) {
    start({.maxConnections = 2, .silentGrace = std::chrono::milliseconds(0)});
    PolicyClient served = connect();
    EXPECT_EQ(served.ask(requestFrom("a")), "a");
    PolicyClient silent = connect();
    silent.send("sender="); // not a request
    ASSERT_TRUE(eventually([](auto const& figures) { return figures.connections == 2; }));
    PolicyClient mailServer = connect();
    EXPECT_EQ(mailServer.ask(requestFrom("b")), "b");
    EXPECT_EQ(silent.answer(), "closed");
    EXPECT_EQ(served.ask(requestFrom("c")), "c");
    ASSERT_TRUE(eventually([](auto const& figures) { return figures.connections == 2; }));
    EXPECT_EQ(connect().answer(), "closed") << "both that are open have asked something";
}

TEST_F(PolicyServerTest, LastDescriptorIsNoTrouble) {
    start();
    PolicyClient last(unixSocket());
    std::size_t const lowest = lowestFreeDescriptor();
    {
        DescriptorLimit const limit(lowest + 2); // the client's socket, and its connection
        last.connect();
        EXPECT_EQ(last.ask(requestFrom("a")), "a");
    }
    PolicyClient next(unixSocket());
    next.connect();
    EXPECT_EQ(next.ask(requestFrom("b")), "b");
    EXPECT_TRUE(log.notes().empty());
}

TEST_F(PolicyServerTest, WithoutDescriptorsAcceptingWaitsAndGoesOn) {
    start();
    PolicyClient before = connect();
    EXPECT_EQ(before.ask(requestFrom("a")), "a");
    PolicyClient waiting(tcp());
    PolicyClient waitingToo(unixSocket());
    {
        DescriptorLimit const none;
        waiting.connect();
        waitingToo.connect();
        EXPECT_TRUE(log.waitForNote("policy: no new connections for the moment: Too many open files"));
        EXPECT_EQ(before.ask(requestFrom("b")), "b");
    }
    EXPECT_EQ(waiting.ask(requestFrom("c")), "c");
    EXPECT_EQ(waitingToo.ask(requestFrom("d")), "d");
    EXPECT_TRUE(log.waitForNote("policy: accepting connections again")); // when nobody waits any more
    EXPECT_EQ(log.notes(), (std::vector<std::string>{"policy: no new connections for the moment: Too many open files",
                                                     "policy: accepting connections again"}));
}

TEST_F(PolicyServerTest, EndOfTroubleIsSeenAlsoWhenTheLastWhoWaitedGotTheLastDescriptor) {
    start();
    PolicyClient waiting(unixSocket());
    std::size_t const lowest = lowestFreeDescriptor();
    {
        DescriptorLimit const roomForOne(lowest + 1);
        {
            DescriptorLimit const none(lowest);
            waiting.connect();
            EXPECT_TRUE(log.waitForNote("policy: no new connections for the moment: Too many open files"));
        }
        EXPECT_EQ(waiting.ask(requestFrom("a")), "a");
    }
    EXPECT_TRUE(log.waitForNote("policy: accepting connections again")) << "without another client";
}

// ---- the end

TEST_F(PolicyServerTest, StopClosesConnectionsAndStartsAgain) {
    start();
    PolicyClient client = connect();
    PolicyClient halfWay = connect();
    EXPECT_EQ(client.ask(requestFrom("a")), "a");
    halfWay.send("sender=");
    ListenAddress const there = tcp();
    server.stop();
    EXPECT_EQ(client.answer(), "closed");
    EXPECT_EQ(halfWay.answer(), "closed");
    EXPECT_THROW(PolicyClient::connected(there), std::runtime_error);
    EXPECT_FALSE(std::filesystem::exists(file("policy")));
    EXPECT_TRUE(server.addresses().empty());
    EXPECT_EQ(server.figures().requests, 0U);
    server.stop();

    start();
    EXPECT_EQ(connect().ask(requestFrom("b")), "b");
}

TEST_F(PolicyServerTest, StopAnswersWhatHasArrived) {
    start({.workers = 1});
    std::promise<void> inAnswerer;
    std::promise<void> goOn;
    answerer.before = [&](PolicyRequest const& request) {
        if (request[PolicyAttribute::sender] == "first") {
            inAnswerer.set_value();
            goOn.get_future().wait();
        }
    };
    PolicyClient first = connect();
    PolicyClient second = connect();
    EXPECT_EQ(second.ask(requestFrom("x")), "x");
    first.send(requestFrom("first"));
    inAnswerer.get_future().wait();
    second.send(requestFrom("second"));
    std::thread stopping([this] { server.stop(); });
    // Stopping begins with the thread that accepts; the worker is still busy with the first request then.
    while (hasThread("policy-accept")) {
        std::this_thread::yield();
    }
    goOn.set_value();
    stopping.join();
    EXPECT_EQ(first.answer(), "first");
    EXPECT_EQ(first.answer(), "closed");
    EXPECT_EQ(second.answer(), "second");
    EXPECT_EQ(second.answer(), "closed");
}

TEST_F(PolicyServerTest, StopDoesNotWaitForAClientThatDoesNotRead) {
    start();
    PolicyClient lazy = PolicyClient::connected(unixSocket());
    std::string const requests = requestFrom("!long") + requestFrom("!long");
    pollfd writable{lazy.socket(), POLLOUT, 0};
    for (std::size_t sent = 0; poll(&writable, 1, 100) > 0;) {
        sent += lazy.sendSome(std::string_view(requests).substr(sent % requests.size()));
    }
    server.stop();
}

TEST_F(PolicyServerTest, StartsAndStopsManyTimesUnderLoad) {
    std::atomic<bool> done{false};
    std::atomic<bool> running{false};
    std::thread client([&] {
        while (!done) {
            try {
                if (running) {
                    PolicyClient::connected(ListenAddress::parse("unix:" + file("policy"))).ask(requestFrom("x"));
                }
            } catch (std::runtime_error const&) {
                // Between two lives of the server.
            }
        }
    });
    std::thread observer([&] {
        while (!done) {
            EXPECT_EQ(server.figures().protocolErrors, 0U);
            EXPECT_LE(server.addresses().size(), 2U);
        }
    });
    for (int i = 0; i < 20; ++i) {
        start();
        running = true;
        EXPECT_TRUE(eventually([](auto const& figures) { return figures.requests > 5; }));
        running = false;
        server.stop();
    }
    done = true;
    client.join();
    observer.join();
}

TEST_F(PolicyServerTest, StartRefusesToRunTwiceOrNowhere) {
    EXPECT_THROW(server.start({}), Vellum::Exception);
    start();
    EXPECT_THROW(start(), Vellum::Exception);
    EXPECT_EQ(connect().ask(requestFrom("a")), "a");
}
