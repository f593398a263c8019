// Listings over a real connection: what clients may do meanwhile, and what that costs others.
#include "foundation/ipc/Dispatcher.h"
#include "foundation/ipc/Listing.h"
#include "tests/ipc/TestDispatcher.h"

#include <array>
#include <atomic>
#include <fstream>
#include <gtest/gtest.h>
#include <memory>
#include <thread>
#include <vector>

namespace Vellum::IPC {
namespace {

constexpr unsigned int listType = 5;
constexpr std::size_t recordSize = 568; // on the wire

struct Packet {
    std::uint64_t number;
    std::array<char, 552> rest;
};

struct ListingDispatch : testing::Test, TestDispatcher {
    std::atomic<std::uint64_t> sent{0}; // records of all listings
    std::atomic<int> ended{0};          // listings that got to their end
    std::atomic<int> failed{0};         // listings that threw

    ~ListingDispatch() override { dispatcher.stop(); } // no task outlives the counters

    // Serves listings of so many records.
    void serve(std::uint64_t records) {
        on(listType, true, [this, records](SocketIPC& client, Pdu const&) {
            try {
                Listing listing(client, records);
                for (std::uint64_t i = 0; i < records; ++i) {
                    ++sent;
                    if (!listing.send(PduType::tupleRecord, Packet{i, {}})) {
                        break;
                    }
                }
                listing.end();
                ++ended;
                return 0;
            } catch (Exception const& gone) {
                ++failed;
                Logger::instance(false).note(Logger::Severity::info, "listing failed: " + gone.asString());
                return -1;
            }
        });
        start();
    }
    static constexpr std::uint64_t endless = 1'000'000'000;

    // Checks a whole listing with so many records on the wire.
    static void expectListing(RawClient& client, std::uint32_t count, std::uint64_t records) {
        ASSERT_EQ(client.read(12), rawUnit(3, {reinterpret_cast<char const*>(&count), sizeof count}));
        for (std::uint64_t i = 0; i < records; ++i) {
            Packet const packet{i, {}};
            ASSERT_EQ(client.read(recordSize), rawUnit(6, {reinterpret_cast<char const*>(&packet), sizeof packet}));
        }
        ASSERT_EQ(client.read(8), rawUnit(4));
    }
    void expectAnswer(RawClient& client) {
        client.send(rawUnit(echoType, "next"));
        EXPECT_EQ(client.read(12), rawUnit(echoType + 1, "next"));
    }
};

} // namespace

TEST_F(ListingDispatch, IsCountRecordsEndAndTheConnectionGoesOn) {
    serve(1000);
    RawClient client(port());
    for (int i = 0; i < 3; ++i) {
        client.send(rawUnit(listType));
        expectListing(client, 1000, 1000);
    }
    expectAnswer(client);
}

TEST_F(ListingDispatch, StopThatIsThereAlreadyEndsItAfterOneRecord) {
    serve(endless);
    RawClient client(port());
    client.send(rawUnit(listType) + rawUnit(4));
    expectListing(client, endless, 1);
    expectAnswer(client);
}

TEST_F(ListingDispatch, StopThatArrivesJustBeforeTheFirstRecordEndsItAfterThatRecord) {
    Event begun;
    Event stopped;
    on(70, true, [&](SocketIPC& client, Pdu const&) {
        begun.happen();
        stopped.wait();
        Listing listing(client, 2);
        EXPECT_FALSE(listing.send(PduType::tupleRecord, Packet{0, {}}));
        listing.end();
        return 0;
    });
    start();
    RawClient client(port());
    client.send(rawUnit(70));
    begun.wait(); // the request is read, and what comes now is in the kernel
    client.send(rawUnit(4));
    stopped.happen();
    expectListing(client, 2, 1);
}

TEST_F(ListingDispatch, OtherUnitsAreDroppedOneForEachRecord) {
    serve(endless);
    RawClient client(port());
    client.send(rawUnit(listType) + rawUnit(echoType, "no time for this") + rawUnit(listType) + rawUnit(4));
    expectListing(client, endless, 3);
    expectAnswer(client);
}

TEST_F(ListingDispatch, LaterStopEndsItSoon) {
    serve(endless);
    RawClient client(port());
    client.send(rawUnit(listType));
    client.read(12 + 5000 * recordSize);
    client.send(rawUnit(4));
    std::uint64_t records = 0;
    while (client.read(8) == rawUnit(6, std::string(560, ' ')).substr(0, 8)) {
        client.read(560);
        ++records;
    }
    expectAnswer(client);
    EXPECT_LT(records * recordSize, 64U << 20) << "what the buffers between us hold";
}

TEST_F(ListingDispatch, BegunUnitDoesNotDelayItAndIsTheNextRequest) {
    serve(5000);
    RawClient client(port());
    std::string const next = rawUnit(echoType, "begun before, finished after");
    client.send(rawUnit(listType) + next.substr(0, 11));
    expectListing(client, 5000, 5000);
    client.send(next.substr(11));
    EXPECT_EQ(client.read(next.size()), rawUnit(echoType + 1, "begun before, finished after"));
}

TEST_F(ListingDispatch, BegunStopIsNoStop) {
    serve(200);
    RawClient client(port());
    client.send(rawUnit(listType) + rawUnit(4).substr(0, 7));
    expectListing(client, 200, 200);
}

TEST_F(ListingDispatch, OversizedUnitEndsItWithoutEndMarker) {
    serve(endless);
    RawClient client(port());
    client.send(rawUnit(listType) + std::string(8, '\xff'));
    client.readUntilEnd();
    EXPECT_TRUE(log.waitForNote("listing failed"));
    EXPECT_EQ(sent, 1U) << "seen after the first record";
    EXPECT_TRUE(answers());
}

TEST_F(ListingDispatch, EndsWhenTheClientHasGone) {
    serve(endless);
    {
        RawClient client(port());
        client.send(rawUnit(listType));
        client.read(12 + 100 * recordSize);
    }
    EXPECT_TRUE(log.waitForNote("listing failed"));
    EXPECT_TRUE(answers());
}

TEST_F(ListingDispatch, ClientThatShutsDownItsSendingSideGetsAllOfIt) {
    serve(20'000);
    RawClient client(port());
    client.send(rawUnit(listType));
    client.shutdownSending();
    EXPECT_EQ(client.readUntilEnd().size(), 12 + 20'000 * recordSize + 8);
}

TEST_F(ListingDispatch, ClientThatTakesNothingIsDroppedAndHoldsUpNobody) {
    options.stallTimeout = std::chrono::milliseconds(300);
    serve(endless);
    RawClient healthy(port());
    RawClient stalled(port(), "127.0.0.1", 4096);
    stalled.send(rawUnit(listType));
    while (failed == 0) {
        expectAnswer(healthy);
    }
    EXPECT_TRUE(log.waitForNote("takes nothing any more"));
    EXPECT_LT(sent * recordSize, options.outputBound + (64U << 20)) << "the bound and the kernel's buffers";
}

TEST_F(ListingDispatch, TaskIsNotWaitedForLongerThanAllowedInAll) {
    options.stallTimeout = std::chrono::hours(1);
    options.waitTimeout = std::chrono::milliseconds(100);
    serve(endless);
    RawClient client(port(), "127.0.0.1", 4096);
    client.send(rawUnit(listType));
    EXPECT_TRUE(log.waitForNote("is too slow: it was waited for 100 ms in all"));
    EXPECT_EQ(failed, 1);
}

TEST_F(ListingDispatch, ManyStalledClientsStopNeitherShortRequestsNorLaterListings) {
    options.stallTimeout = std::chrono::milliseconds(500);
    options.outputBudget = 8U << 20;
    serve(200'000); // 113 MB: more than the buffers of one client hold
    std::vector<std::unique_ptr<RawClient>> stalled;
    for (int i = 0; i < 200; ++i) {
        stalled.push_back(std::make_unique<RawClient>(port(), "127.0.0.1", 4096));
        stalled.back()->send(rawUnit(listType));
    }
    RawClient healthy(port());
    expectAnswer(healthy);
    healthy.send(rawUnit(listType));
    expectListing(healthy, 200'000, 200'000);
    EXPECT_EQ(ended, 1);
    while (failed < 200) {
        expectAnswer(healthy);
    }
}

TEST_F(ListingDispatch, IsCompleteAlsoWithoutAnyBudgetForItsOutput) {
    options.outputBudget = 0;
    serve(50'000);
    RawClient client(port());
    client.send(rawUnit(listType));
    expectListing(client, 50'000, 50'000);
}

TEST_F(ListingDispatch, FitsInTheBoundWithoutWaitingForAClientThatReadsLater) {
    options.stallTimeout = std::chrono::milliseconds(1); // any wait would end it
    serve(5000);                                         // 2.8 MB
    RawClient client(port(), "127.0.0.1", 4096);
    client.send(rawUnit(listType));
    while (ended == 0) {
        std::this_thread::yield();
    }
    expectListing(client, 5000, 5000);
    expectAnswer(client);
}

TEST_F(ListingDispatch, TaskMayAskItsClientAndWaitForTheAnswer) {
    on(70, true, [](SocketIPC& client, Pdu const&) {
        client << Pdu(71, Buffer("which?", 6, true));
        while (!client.socket().dataWaiting()) {
            std::this_thread::yield();
        }
        Pdu answer(0, 1024);
        client >> answer;
        client << Pdu(72, answer.data());
        return 0;
    });
    start();
    RawClient client(port());
    client.send(rawUnit(70));
    EXPECT_EQ(client.read(14), rawUnit(71, "which?"));
    client.send(rawUnit(99, "that one"));
    EXPECT_EQ(client.read(16), rawUnit(72, "that one"));
}

TEST_F(ListingDispatch, ProgressIsSeenBeforeTheTaskEnds) {
    Event seen;
    on(70, true, [&](SocketIPC& client, Pdu const&) {
        client << Pdu(71, 0);
        client.socket().flush();
        seen.wait();
        client << Pdu(72, 0);
        return 0;
    });
    start();
    RawClient client(port());
    client.send(rawUnit(70));
    EXPECT_EQ(client.read(8), rawUnit(71));
    seen.happen();
    EXPECT_EQ(client.read(8), rawUnit(72));
}

TEST_F(ListingDispatch, ReceivingWhatHasNotArrivedIsAnErrorNotAWait) {
    std::string reason;
    Event done;
    on(70, true, [&](SocketIPC& client, Pdu const&) {
        try {
            Pdu unit(0, 1024);
            client >> unit;
        } catch (Exception const& refused) {
            reason = refused.asString();
        }
        done.happen();
        return 0;
    });
    start();
    RawClient client(port());
    client.send(rawUnit(70) + rawUnit(71).substr(0, 5));
    done.wait();
    EXPECT_NE(reason.find("nothing has arrived"), std::string::npos) << reason;
}

} // namespace Vellum::IPC
