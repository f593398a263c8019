// The listing conversation on a scripted socket, unit by unit.
#include "foundation/ipc/Listing.h"

#include "foundation/Exception.h"
#include "tests/support/RawClient.h"

#include <deque>
#include <gtest/gtest.h>
#include <limits>
#include <memory>

namespace Vellum::IPC {
namespace {

struct Packet {
    char text[4];
};

// Keeps what is sent, and answers the polls of a listing from a script.
class ScriptedSocket : public Socket {
  public:
    std::string sent;
    std::deque<std::string> arriving; // what is waiting at each poll, from the first; "" for nothing
    int polls = 0;
    int failAtSend = -1;

    bool dataWaiting() override {
        ++polls;
        if (arriving.empty()) {
            return false;
        }
        if (arriving.front().empty()) {
            arriving.pop_front();
            return false;
        }
        return true;
    }
    void send(std::uint32_t type, void const* payload, std::size_t length) override {
        if (failAtSend-- == 0) {
            throw Exception("send", Exception::failure);
        }
        sent += rawUnit(type, {static_cast<char const*>(payload), length});
    }
    void receive(Pdu& into) override {
        std::string const raw = arriving.front();
        arriving.pop_front();
        into.assign(Pdu::typeInHeader(raw.data()), raw.data() + 8, raw.size() - 8);
    }
};

struct ListingConversation : testing::Test {
    ScriptedSocket* socket = new ScriptedSocket;
    SocketIPC client{std::unique_ptr<Socket>(socket)};

    // Lists so many records as a family would.
    void list(int records) {
        Listing listing(client, static_cast<std::size_t>(records));
        for (int i = 0; i < records; ++i) {
            if (!listing.send(PduType::tupleRecord, Packet{{'r', static_cast<char>('0' + i), 0, 0}})) {
                break;
            }
        }
        listing.end();
    }
    static std::string count(char records) { return rawUnit(3, std::string{records, 0, 0, 0}); }
    static std::string record(char number) { return rawUnit(6, std::string{'r', number, 0, 0}); }
    std::string const end = rawUnit(4);
};

} // namespace

TEST_F(ListingConversation, OfNothingIsACountOfZeroAndTheEnd) {
    list(0);
    EXPECT_EQ(socket->sent, count(0) + end);
    EXPECT_EQ(socket->polls, 0);
}

TEST_F(ListingConversation, IsCountRecordsEnd) {
    list(3);
    EXPECT_EQ(socket->sent, count(3) + record('0') + record('1') + record('2') + end);
    EXPECT_EQ(socket->polls, 3) << "once after each record";
}

TEST_F(ListingConversation, StopWaitingAfterTheFirstRecordEndsItThere) {
    socket->arriving = {rawUnit(4)};
    list(3);
    EXPECT_EQ(socket->sent, count(3) + record('0') + end);
}

TEST_F(ListingConversation, StopWithAPayloadIsAStop) {
    socket->arriving = {"", rawUnit(4, "please")};
    list(3);
    EXPECT_EQ(socket->sent, count(3) + record('0') + record('1') + end);
}

TEST_F(ListingConversation, OtherUnitsAreReadOneAfterEachRecordAndDropped) {
    socket->arriving = {rawUnit(5), rawUnit(0), rawUnit(4)};
    list(5);
    EXPECT_EQ(socket->sent, count(5) + record('0') + record('1') + record('2') + end);
}

TEST_F(ListingConversation, HasNoEndMarkerAfterAFailure) {
    socket->failAtSend = 2;
    EXPECT_THROW(list(3), Exception);
    EXPECT_EQ(socket->sent, count(3) + record('0'));
}

TEST_F(ListingConversation, CountBeyondItsRangeIsTheGreatest) {
    Listing(client, std::numeric_limits<std::size_t>::max()).end();
    EXPECT_EQ(socket->sent, rawUnit(3, "\xff\xff\xff\x7f") + end);
}

TEST_F(ListingConversation, RecordsOfOneKeyHaveNeitherCountNorPoll) {
    socket->arriving = {rawUnit(4)};
    RecordReply reply(client);
    reply.send(PduType::reputationRecord, Packet{{'x', 0, 0, 0}});
    reply.send(PduType::reputationRecord, Packet{{'y', 0, 0, 0}});
    reply.end();
    EXPECT_EQ(socket->sent,
              rawUnit(27, std::string("x\0\0\0", 4)) + rawUnit(27, std::string("y\0\0\0", 4)) + rawUnit(4));
    EXPECT_EQ(socket->polls, 0);
}

} // namespace Vellum::IPC
