// The listings through a real dispatcher, byte by byte.
#include "greylist/GlDisplay.h"

#include "foundation/ipc/Dispatcher.h"
#include "foundation/ipc/Endpoint.h"
#include "foundation/ipc/SocketIPC.h"
#include "tests/support/ProcessCaches.h"
#include "tests/support/RawClient.h"

#include <gtest/gtest.h>

#include <cstring>

namespace Vellum::GreyList {
namespace {

constexpr std::size_t countSize = 12;
constexpr std::size_t recordSize = 568;
constexpr std::size_t endSize = 8;

class ListingDispatchTest : public ProcessCaches {
  protected:
    ListingDispatchTest() {
        m_dispatcher.add(IPC::MyHandler<RecordHandler>());
        m_dispatcher.add(IPC::MyHandler<AutoExemptHandler>());
        IPC::DispatcherOptions options;
        options.port = 0;
        m_dispatcher.start(options);
    }
    unsigned int port() const { return m_dispatcher.boundPort(); }
    void fill(unsigned int count) {
        for (unsigned int n = 0; n < count; ++n) {
            m_tuples.add(tuple(n), m_status);
            m_exemptions.add(exemption(n), m_status);
        }
    }
    std::string listing(unsigned int count, unsigned int sent) const {
        std::string bytes = countUnit(count);
        for (unsigned int n = 0; n < sent; ++n) {
            Packet const packet(tuple(n), m_status, 0);
            bytes += rawUnit(6, {reinterpret_cast<char const*>(&packet), sizeof packet});
        }
        return bytes + rawUnit(4);
    }
    std::string exemptionListing(unsigned int count) const {
        std::string bytes = countUnit(count);
        for (unsigned int n = 0; n < count; ++n) {
            Packet const packet(exemption(n), m_status);
            bytes += rawUnit(8, {reinterpret_cast<char const*>(&packet), sizeof packet});
        }
        return bytes + rawUnit(4);
    }
    static std::string countUnit(unsigned int count) {
        return rawUnit(3, {reinterpret_cast<char const*>(&count), sizeof count});
    }

    Status const m_status{4102444800L, 4102444900L, 0}; // still waiting for eighty years
    IPC::Dispatcher m_dispatcher{29001};
};

TEST_F(ListingDispatchTest, SendsCountRecordsAndEndAndServesTheNextRequest) {
    fill(3);
    RawClient client(port());
    client.send(rawUnit(5));
    EXPECT_EQ(client.read(countSize + 3 * recordSize + endSize), listing(3, 3));
    client.send(rawUnit(7));
    EXPECT_EQ(client.read(countSize + 3 * recordSize + endSize), exemptionListing(3));
    client.send(rawUnit(5, "a payload that nobody reads"));
    EXPECT_EQ(client.read(countSize + 3 * recordSize + endSize), listing(3, 3));
}

TEST_F(ListingDispatchTest, EmptyCachesAreACountOfZeroAndTheEnd) {
    RawClient client(port());
    client.send(rawUnit(5) + rawUnit(7));
    EXPECT_EQ(client.read(2 * (countSize + endSize)), listing(0, 0) + listing(0, 0));
}

TEST_F(ListingDispatchTest, LargeListingIsWhole) {
    fill(capacity);
    RawClient client(port());
    client.send(rawUnit(5));
    EXPECT_EQ(client.read(countSize + capacity * recordSize + endSize), listing(capacity, capacity));
}

TEST_F(ListingDispatchTest, StopSentWithTheRequestEndsItAfterTheFirstRecord) {
    fill(10);
    RawClient client(port());
    client.send(rawUnit(5) + rawUnit(4));
    EXPECT_EQ(client.read(countSize + recordSize + endSize), listing(10, 1));
    client.send(rawUnit(7));
    EXPECT_EQ(client.read(countSize + 10 * recordSize + endSize), exemptionListing(10)) << "the connection lives on";
}

TEST_F(ListingDispatchTest, OtherUnitDuringAListingIsDropped) {
    fill(10);
    RawClient client(port());
    client.send(rawUnit(5) + rawUnit(77, "hello"));
    EXPECT_EQ(client.read(countSize + 10 * recordSize + endSize), listing(10, 10));
    client.send(rawUnit(5));
    EXPECT_EQ(client.read(countSize + 10 * recordSize + endSize), listing(10, 10));
}

TEST_F(ListingDispatchTest, HalfAUnitDuringAListingIsNotWaitedFor) {
    fill(10);
    RawClient client(port());
    std::string const next = rawUnit(7);
    client.send(rawUnit(5) + next.substr(0, 5));
    EXPECT_EQ(client.read(countSize + 10 * recordSize + endSize), listing(10, 10));
    m_tuples.add(tuple(10), m_status); // nothing holds the lock
    client.send(next.substr(5));
    EXPECT_EQ(client.read(countSize + 10 * recordSize + endSize), exemptionListing(10));
}

TEST_F(ListingDispatchTest, ClientThatReadsNothingDoesNotHoldUpNewTuples) {
    fill(capacity - 1);
    RawClient client(port());
    client.send(rawUnit(5));
    std::string const beginning = client.read(countSize);
    EXPECT_EQ(m_tuples.state(tuple(capacity), 1000), 0) << "needs the lock alone";
    EXPECT_EQ(beginning + client.read((capacity - 1) * recordSize + endSize), listing(capacity - 1, capacity - 1));
}

TEST_F(ListingDispatchTest, ClientsOfTheLibraryReadIt) {
    fill(100);
    IPC::Endpoint::map(29001, "127.0.0.1", port());
    IPC::SocketIPC daemon;
    daemon.connect(29001);
    daemon << IPC::Pdu(IPC::PduType::listTuples, 0);
    IPC::Pdu reply(IPC::PduType::receiveBuffer, 1024);
    daemon >> reply;
    EXPECT_TRUE(reply.is(IPC::PduType::count));
    EXPECT_EQ(IPC::payloadAs<std::int32_t>(reply), 100);
    unsigned int n = 0;
    for (daemon >> reply; reply.is(IPC::PduType::tupleRecord); daemon >> reply, ++n) {
        ASSERT_EQ(reply.data().length(), sizeof(Packet));
        Packet const expected(tuple(n), m_status, 0);
        ASSERT_EQ(std::memcmp(reply.data().data(), &expected, sizeof expected), 0) << n;
    }
    EXPECT_TRUE(reply.is(IPC::PduType::endOfListing));
    EXPECT_EQ(n, 100U);
    IPC::Endpoint::unmap(29001);
}

} // namespace
} // namespace Vellum::GreyList
