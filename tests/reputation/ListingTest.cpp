// Packets byte by byte, and the two listings.
#include "reputation/ReputationDisplay.h"

#include "foundation/ipc/Dispatcher.h"
#include "tests/support/ReputationCache.h"
#include "tests/support/ScriptedSocket.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <ctime>
#include <new>
#include <thread>

namespace Vellum::Reputation {
namespace {

using IPC::Pdu;
using Record = Entry::Record;
using Type = Entry::AttributeType;

std::string countUnit(std::int32_t count) {
    return rawUnit(3, {reinterpret_cast<char const*>(&count), sizeof count});
}
std::string const endUnit = rawUnit(4);

// Little-endian bytes.
template <class T>
std::string bytes(T value) {
    return {reinterpret_cast<char const*>(&value), sizeof value};
}
std::string rawAddress(std::uint32_t family, std::string const& used) {
    return bytes(family) + used + std::string(16 - used.size(), '\0');
}
template <class Packed>
std::string payload(Packed const& packet) {
    return {reinterpret_cast<char const*>(&packet), sizeof packet};
}

Packet packetOf(IPAddress const& client, RefEntry const& entry, long now, unsigned int firstPeriod) {
    SharedLock const hold(Entry::s_lock);
    return {client, entry, now, firstPeriod};
}

class ListingTest : public ReputationCache {
  protected:
    static int list(ScriptedClient& client) { return EntryHandler().task(client.connection, Pdu(10, 0U)); }
    static int listRecords(ScriptedClient& client, std::string const& request) {
        return RecordHandler().task(client.connection, Pdu(26, Buffer(request.data(), request.size(), true)));
    }
    void addEntries(unsigned int count) {
        for (unsigned int n = 0; n < count; ++n) {
            m_cache.find(ip(n));
        }
    }
    static std::string emptyEntryUnit(unsigned int n) {
        return rawUnit(11, rawAddress(4, bytes(__builtin_bswap32(0x0A000000U + n))) + std::string(20, '\0'));
    }
};

TEST_F(ListingTest, EntryPacketHoldsAddressScoreStateAndTime) {
    RefEntry const entry(true);
    entry->add(477000, Record(5, 5, 0, 0, 5));
    entry->state(static_cast<ReputationState>(0x80000003U));
    EXPECT_EQ(payload(packetOf(ip("192.0.2.25"), entry, 477000 * 3600L, 477000 - 11)),
              rawAddress(4, std::string("\xc0\x00\x02\x19", 4)) + bytes(20U) + bytes(0x80000003U) +
                  std::string(4, '\0') + bytes(std::int64_t{477000 * 3600L}));
    EXPECT_EQ(payload(packetOf(ip("2001:db8::1"), entry, 477000 * 3600L, 477001)),
              rawAddress(6, std::string("\x20\x01\x0d\xb8\0\0\0\0\0\0\0\0\0\0\0\x01", 16)) + bytes(0U) +
                  bytes(0x80000003U) + std::string(4, '\0') + bytes(std::int64_t{477000 * 3600L}));
}

TEST_F(ListingTest, RecordPacketHoldsThePeriodAndNineCounters) {
    Record record(1, 2, 3, 4, 5);
    record.extraTotal = 6;
    record.extraHits = 7;
    record.extraVolume = 8;
    record.flagged = 0xFFFFFFFFU;
    std::string expected = bytes(477000U);
    for (std::uint32_t const counter : {1U, 2U, 3U, 4U, 5U, 6U, 7U, 8U, 0xFFFFFFFFU}) {
        expected += bytes(counter);
    }
    EXPECT_EQ(payload(RecordPacket(477000, record)), expected);
}

TEST_F(ListingTest, EmptyCacheIsACountOfZeroAndTheEndMarker) {
    ScriptedClient client;
    EXPECT_EQ(list(client), 0);
    EXPECT_EQ(client.socket.sent, countUnit(0) + endUnit);
    EXPECT_TRUE(m_log.lines().empty());
}

TEST_F(ListingTest, EntriesComeInAddressOrderWithTheScoreOfNow) {
    auto const hour = static_cast<unsigned int>(std::time(nullptr) / 3600);
    RefEntry const bad = m_cache.entry(ip("2001:db8::1"));
    for (unsigned int of = hour - 20; of <= hour + 1; ++of) { // whichever hour it is when it is listed
        bad->add(of, Record(30, 30, 0, 0, 30));
    }
    bad->increment(Type::Spam, hour, 0);
    long const changed = bad->lastModified();
    m_cache.entry(ip("192.0.2.25"))->state(ReputationState::blocked);
    ScriptedClient client;
    EXPECT_EQ(list(client), 0);
    EXPECT_EQ(client.socket.sent,
              countUnit(2) +
                  rawUnit(11, rawAddress(4, std::string("\xc0\x00\x02\x19", 4)) + bytes(0U) + bytes(3U) +
                                  std::string(12, '\0')) +
                  rawUnit(11, rawAddress(6, std::string("\x20\x01\x0d\xb8\0\0\0\0\0\0\0\0\0\0\0\x01", 16)) +
                                  bytes(100U) + bytes(0U) + std::string(4, '\0') + bytes(std::int64_t{changed})) +
                  endUnit);
    EXPECT_EQ(recordsOf(bad).size(), 22U) << "a listing drops no hours";
}

TEST_F(ListingTest, ListingMakesNoEntryAndIsNoUse) {
    addEntries(Cache::mostEntries);
    ScriptedClient client;
    EXPECT_EQ(list(client), 0);
    EXPECT_EQ(client.socket.sent.size(), 12U + 48U * Cache::mostEntries + 8U);
    m_cache.find(ip(Cache::mostEntries));
    EXPECT_FALSE(holds(m_cache, ip(0)));
    EXPECT_TRUE(holds(m_cache, ip(1)));
}

TEST_F(ListingTest, StopAfterTheFirstEntryEndsTheListingThere) {
    addEntries(3);
    ScriptedClient client;
    client.socket.arriving = {rawUnit(4)};
    EXPECT_EQ(list(client), 0);
    EXPECT_EQ(client.socket.sent, countUnit(3) + emptyEntryUnit(0) + endUnit);
}

TEST_F(ListingTest, AnyOtherUnitIsReadAndTheListingGoesOn) {
    addEntries(4);
    ScriptedClient client;
    client.socket.arriving = {rawUnit(10), rawUnit(77, std::string(1024, 'x'))};
    EXPECT_EQ(list(client), 0);
    EXPECT_EQ(client.socket.sent,
              countUnit(4) + emptyEntryUnit(0) + emptyEntryUnit(1) + emptyEntryUnit(2) + emptyEntryUnit(3) + endUnit);
    EXPECT_TRUE(client.socket.arriving.empty());
}

TEST_F(ListingTest, HoursOfAnAddressComeInAscendingOrder) {
    RefEntry const entry = m_cache.entry(ip("192.0.2.25"));
    entry->add(7, Record(1, 2, 3, 4, 5));
    entry->add(5, Record(6, 7, 8, 9, 10));
    ScriptedClient client;
    EXPECT_EQ(listRecords(client, rawAddress(4, std::string("\xc0\x00\x02\x19", 4))), 0);
    EXPECT_EQ(client.socket.sent, rawUnit(27, payload(RecordPacket(5, Record(6, 7, 8, 9, 10)))) +
                                      rawUnit(27, payload(RecordPacket(7, Record(1, 2, 3, 4, 5)))) + endUnit)
        << "no count, and hours of any age";
    EXPECT_TRUE(m_log.lines().empty());
}

// A request for one's own address, over and over, would otherwise push others out of the cache.
TEST_F(ListingTest, UnknownAddressIsOnlyTheEndMarkerAndGetsNoEntry) {
    m_cache.find(ip("192.0.2.1"));
    ScriptedClient client;
    EXPECT_EQ(listRecords(client, rawAddress(4, std::string("\xc0\x00\x02\x19", 4))), 0);
    EXPECT_EQ(client.socket.sent, endUnit);
    EXPECT_EQ(sizeOf(m_cache), 1U);
}

TEST_F(ListingTest, RequestMayBeLongerThanAnAddress) {
    m_cache.entry(ip("192.0.2.25"))->add(5, Record(1, 1, 1, 1, 1));
    ScriptedClient client;
    EXPECT_EQ(listRecords(client, rawAddress(4, std::string("\xc0\x00\x02\x19", 4)) + "x"), 0);
    EXPECT_EQ(client.socket.sent.size(), 48U + 8U);
}

TEST_F(ListingTest, RequestThatHoldsNoAddressIsRefused) {
    struct Wrong {
        std::string request;
        std::string text;
    };
    for (Wrong const& wrong : {
             Wrong{"", "RecordHandler::task (code 4, ReputationDisplay): a request of 0 bytes, expected 20"},
             Wrong{rawAddress(4, "abcd").substr(0, 19),
                   "RecordHandler::task (code 4, ReputationDisplay): a request of 19 bytes, expected 20"},
             Wrong{rawAddress(5, "abcd"),
                   "IPAddress::IPAddress (code 4, IPAddress): address family 5 is none of 0, 4, 6"},
             Wrong{rawAddress(0, ""),
                   "RecordHandler::task (code 4, ReputationDisplay): the address is neither IPv4 nor "
                   "IPv6"},
         }) {
        m_log.clear();
        ScriptedClient client;
        EXPECT_EQ(listRecords(client, wrong.request), -1);
        EXPECT_EQ(client.socket.sent, "");
        ASSERT_EQ(m_log.lines().size(), 1U);
        EXPECT_EQ(m_log.lines()[0].code, 0x300018FU);
        EXPECT_EQ(m_log.lines()[0].format, "%s");
        EXPECT_EQ(m_log.lines()[0].text, wrong.text);
    }
    EXPECT_EQ(sizeOf(m_cache), 0U);
}

TEST_F(ListingTest, RequestOfAnotherTypeIsRefusedWithItsRecord) {
    ScriptedClient client;
    EXPECT_EQ(EntryHandler().task(client.connection, Pdu(26, 0U)), -1);
    EXPECT_EQ(RecordHandler().task(client.connection, Pdu(10, 0U)), -1);
    EXPECT_EQ(client.socket.sent, "");
    auto const records = m_log.lines();
    ASSERT_EQ(records.size(), 2U);
    EXPECT_EQ(records[0].code, 0x300018CU);
    EXPECT_EQ(records[0].level, 0);
    EXPECT_EQ(records[0].format, "%s\x01%d");
    EXPECT_EQ(records[0].fields, (std::vector<std::string>{"ReputationDisplay", "102"}));
    EXPECT_EQ(records[1].code, 0x300018EU);
    EXPECT_EQ(records[1].format, "%s\x01%d");
    EXPECT_EQ(records[1].fields, (std::vector<std::string>{"ReputationDisplay", "221"}));
}

TEST_F(ListingTest, ClientThatGoesAwayIsLoggedAndGetsNoEndMarker) {
    m_cache.entry(ip(0))->add(5, Record(1, 1, 1, 1, 1));
    m_cache.entry(ip(0))->add(6, Record(1, 1, 1, 1, 1));
    m_cache.find(ip(1));
    for (int const unit : {0, 1, 2, 3}) { // of the listing: count, two entries, end; of the hours: two, end
        m_log.clear();
        auto const failAt = [unit](ScriptedClient& client) {
            client.socket.onSend = [unit, sent = 0](std::uint32_t) mutable {
                if (sent++ == unit) {
                    throw Exception("SocketIPC::send", Exception::failure).stringParameter("gone");
                }
            };
        };
        ScriptedClient entries;
        failAt(entries);
        EXPECT_EQ(list(entries), -1);
        EXPECT_EQ(entries.socket.sent.size(), unit == 0 ? 0U : 12U + 48U * static_cast<unsigned int>(unit - 1));
        ScriptedClient records;
        failAt(records);
        EXPECT_EQ(listRecords(records, rawAddress(4, std::string("\x0a\0\0\0", 4))), unit < 3 ? -1 : 0);
        auto const lines = m_log.lines();
        ASSERT_EQ(lines.size(), unit < 3 ? 2U : 1U);
        EXPECT_EQ(lines[0].code, 0x300018DU);
        EXPECT_EQ(lines[0].text, "SocketIPC::send (code 4): gone");
        if (unit < 3) {
            EXPECT_EQ(lines[1].code, 0x300018FU);
            EXPECT_EQ(lines[1].text, "SocketIPC::send (code 4): gone");
        }
        m_cache.entry(ip(1))->state(ReputationState::trusted); // nobody holds the locks any more
    }
}

TEST_F(ListingTest, OtherExceptionsPassAndTheLocksAreReleased) {
    addEntries(1);
    ScriptedClient client;
    client.socket.onSend = [](std::uint32_t type) {
        if (type == 11) {
            throw std::bad_alloc();
        }
    };
    EXPECT_THROW(list(client), std::bad_alloc);
    EXPECT_TRUE(m_log.lines().empty());
    m_cache.entry(ip(0))->increment(Type::Spam, 5, 1);
}

// One moment: both locks are held shared until the end marker, readers go on, writers wait.
TEST_F(ListingTest, WriterWaitsForTheEndMarkerAndReadersDoNot) {
    RefEntry const entry = m_cache.entry(ip(0));
    entry->add(5, Record(1, 1, 0, 0, 0));
    ScriptedClient client;
    std::atomic<bool> written{false};
    std::thread writer;
    client.socket.onSend = [&](std::uint32_t type) {
        if (type == 3) {
            EXPECT_EQ(entry->messageCount(5 * 3600), 1U);
            writer = std::thread([&] {
                entry->increment(Type::MessageCount, 5, 1);
                written = true;
            });
            while (!Entry::s_lock.isClaimed()) {
                std::this_thread::yield();
            }
        }
        EXPECT_FALSE(written) << "at unit " << type;
        EXPECT_EQ(entry->state(), ReputationState::unset) << "needs no lock";
    };
    EXPECT_EQ(list(client), 0);
    writer.join();
    EXPECT_EQ(entry->messageCount(5 * 3600), 2U);
}

TEST_F(ListingTest, NewAddressWaitsForTheEndMarkerToo) {
    m_cache.find(ip(0));
    ScriptedClient client;
    std::atomic<bool> found{false};
    std::thread finder;
    client.socket.onSend = [&](std::uint32_t type) {
        if (type == 3) {
            finder = std::thread([&] {
                m_cache.find(ip(1));
                found = true;
            });
            while (!m_cache.lock.isClaimed()) {
                std::this_thread::yield();
            }
        }
        EXPECT_FALSE(found) << "at unit " << type;
    };
    EXPECT_EQ(list(client), 0);
    finder.join();
    EXPECT_TRUE(holds(m_cache, ip(1)));
}

TEST_F(ListingTest, HandlersAreRegisteredForTheirTypesAsLongOnes) {
    auto& dispatcher = IPC::Dispatcher::instance(29001);
    ASSERT_TRUE(dispatcher.handler(10).isNull()) << "nothing is registered by itself";
    addEntryHandler();
    EXPECT_TRUE(dispatcher.handler(26).isNull());
    addRecordHandler();
    EXPECT_NE(dynamic_cast<EntryHandler const*>(dispatcher.handler(10).get()), nullptr);
    EXPECT_NE(dynamic_cast<RecordHandler const*>(dispatcher.handler(26).get()), nullptr);
    for (unsigned int const type : {10U, 26U}) {
        EXPECT_EQ(dispatcher.handler(type)->type(), type);
        EXPECT_TRUE(dispatcher.handler(type)->mayTakeLong());
    }
}

} // namespace
} // namespace Vellum::Reputation
