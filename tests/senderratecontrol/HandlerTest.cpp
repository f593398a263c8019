// Both handlers, called directly.
#include "foundation/ipc/Dispatcher.h"
#include "senderratecontrol/SenderRateControlDisplay.h"
#include "tests/support/BesideAListing.h"
#include "tests/support/CapturingLogger.h"
#include "tests/support/OwnProcess.h"
#include "tests/support/RateControl.h"
#include "tests/support/ScriptedSocket.h"

#include <gtest/gtest.h>

#include <atomic>
#include <ctime>
#include <functional>
#include <thread>

namespace Vellum::SenderRateControl {
namespace {

using IPC::Pdu;

constexpr char const* entrySignature = "virtual int Vellum::SenderRateControl::EntryHandler::task("
                                       "Vellum::IPC::SocketIPC&, const Vellum::IPC::Pdu&) const";
constexpr char const* recordSignature = "virtual int Vellum::SenderRateControl::RecordHandler::task("
                                        "Vellum::IPC::SocketIPC&, const Vellum::IPC::Pdu&) const";
constexpr int failed = -1; // 0xFFFFFFFF
static_assert(static_cast<std::uint32_t>(failed) == 0xFFFFFFFF);

std::string countUnit(std::int32_t count) {
    return rawUnit(3, {reinterpret_cast<char const*>(&count), sizeof count});
}
template <class Packet>
std::string packetUnit(std::uint32_t type, Packet const& packet) {
    return rawUnit(type, {reinterpret_cast<char const*>(&packet), sizeof packet});
}
std::string const endUnit = rawUnit(4);

unsigned int periodNow() {
    return static_cast<unsigned int>(std::time(nullptr) / 300);
}

class RateHandlers : public ProcessCache {
  protected:
    RateHandlers() { m_log.clear(); }

    static int list(ScriptedClient& client) { return EntryHandler().task(client.connection, Pdu(28, 0U)); }
    static int records(ScriptedClient& client, std::string const& of) {
        return RecordHandler().task(client.connection,
                                    Pdu(30, Buffer(of.data(), static_cast<unsigned int>(of.size()), true)));
    }
    // A period that counts whenever the test runs: far ahead.
    static constexpr unsigned int ahead = 4'000'000'000;

    CapturingLogger m_log;
};

TEST_F(RateHandlers, EmptyCacheIsACountOfZeroAndTheEndMarker) {
    ScriptedClient client;
    EXPECT_EQ(list(client), 0);
    EXPECT_EQ(client.socket.sent, countUnit(0) + endUnit);
    EXPECT_TRUE(m_log.lines().empty());
}

TEST_F(RateHandlers, SendersComeInAscendingOrderWithTheirTotals) {
    for (char const* address : {"b@x", "", "B@x", "a@x"}) {
        m_cache.entryOf(mailbox(address))->increment(Entry::Attribute2, ahead, 7);
    }
    RefEntry const blocked = m_cache.entryOf(mailbox("b@x"));
    blocked->state(RateControlState::blocked);
    blocked->blockedUntil(4102444800);
    blocked->blockedReason(Entry::Attribute2);
    ScriptedClient client;
    EXPECT_EQ(list(client), 0);
    std::string expected = countUnit(4);
    for (char const* address : {"", "B@x", "a@x", "b@x"}) {
        SharedLock const hold(Entry::s_lock);
        expected += packetUnit(29, Packet(mailbox(address), held(m_cache, mailbox(address)), ahead));
    }
    EXPECT_EQ(client.socket.sent, expected + endUnit);
    EXPECT_EQ(client.socket.sent.size(), 12U + 4 * 312U + 8U);
    std::string const last = client.socket.sent.substr(12 + 3 * 312 + 8, 304);
    EXPECT_EQ(last.substr(0, 8), std::string("\x03\0\0\0b@x\0", 8));
    EXPECT_EQ(last[264], 7);
    EXPECT_EQ(last[284], 1);
    EXPECT_EQ(last[296], 2);
}

TEST_F(RateHandlers, DumpForgetsWhatIsOlderThanTheHalfHourOfEverySender) {
    for (unsigned int n = 0; n < 3; ++n) {
        RefEntry const entry = m_cache.entryOf(sender(n));
        entry->increment(Entry::Attribute1, 5, 1);
        entry->increment(Entry::Attribute1, periodNow() - 7, 10);
        entry->increment(Entry::Attribute1, periodNow(), 100);
        entry->increment(Entry::Attribute1, ahead, 1000);
    }
    ScriptedClient client;
    EXPECT_EQ(list(client), 0);
    for (unsigned int n = 0; n < 3; ++n) {
        RefEntry const entry = held(m_cache, sender(n));
        EXPECT_EQ(entry->records().size(), 2U);
        EXPECT_GT(entry->firstPeriod(), periodNow() - 6);
        Packet packet(sender(n), RefEntry(true), 0);
        std::memcpy(static_cast<void*>(&packet), client.socket.sent.data() + 12 + n * 312 + 8, sizeof packet);
        EXPECT_EQ(packet.totals.count1, 1100U);
    }
}

TEST_F(RateHandlers, StopEndsTheDumpAfterTheRecordInHand) {
    for (unsigned int n = 0; n < 3; ++n) {
        m_cache.find(sender(n));
    }
    ScriptedClient client;
    client.socket.arriving = {rawUnit(77, std::string(1024, 'x')), rawUnit(4)};
    EXPECT_EQ(list(client), 0);
    EXPECT_EQ(client.socket.sent.size(), 12U + 2 * 312U + 8U) << "the first unit is dropped, the second stops it";
    EXPECT_TRUE(client.socket.arriving.empty());
}

TEST_F(RateHandlers, DumpIsNoUse) {
    for (unsigned int n = 0; n < capacity; ++n) {
        m_cache.find(sender(n));
    }
    ScriptedClient client;
    EXPECT_EQ(list(client), 0);
    m_cache.find(sender(capacity));
    EXPECT_FALSE(held(m_cache, sender(0)));
    EXPECT_TRUE(held(m_cache, sender(1)));
}

TEST_F(RateHandlers, RecordsOfASenderComeInAscendingOrderOldOnesIncluded) {
    RefEntry const entry = m_cache.entryOf(mailbox("ann@example.net"));
    entry->add(periodNow(), {1, 2, 3, 4, 5});
    entry->add(7, {6, 7, 8, 9, 10});
    entry->increment(Entry::AttributeType{0}, ahead, 5);
    m_cache.entryOf(mailbox("bob@example.net"))->increment(Entry::Attribute1, 8, 1);
    auto const before = entry->records();
    ScriptedClient client;
    EXPECT_EQ(records(client, "ann@example.net"), 0);
    std::string expected;
    for (auto const& [period, record] : before) {
        expected += packetUnit(31, RecordPacket(period, record));
    }
    EXPECT_EQ(before.size(), 3U);
    EXPECT_EQ(client.socket.sent, expected + endUnit);
    EXPECT_EQ(client.socket.sent.substr(8, 4), std::string("\7\0\0\0", 4)) << "the oldest is the first";
    EXPECT_EQ(entry->records(), before) << "nothing is forgotten here";
}

TEST_F(RateHandlers, BracketsAndTheNullSenderAreMailboxes) {
    m_cache.entryOf(mailbox("ann@example.net"))->increment(Entry::Attribute1, 7, 1);
    m_cache.entryOf(mailbox(""))->increment(Entry::Attribute1, 8, 1);
    ScriptedClient bracketed;
    EXPECT_EQ(records(bracketed, "<ann@example.net>"), 0);
    EXPECT_EQ(bracketed.socket.sent, packetUnit(31, RecordPacket(7, {1, 0, 0, 0, 0})) + endUnit);
    ScriptedClient null;
    EXPECT_EQ(records(null, "<>"), 0);
    EXPECT_EQ(null.socket.sent, packetUnit(31, RecordPacket(8, {1, 0, 0, 0, 0})) + endUnit);
}

TEST_F(RateHandlers, UnknownSenderYieldsOnlyTheEndMarkerAndNoEntry) {
    m_cache.find(sender(1));
    ScriptedClient client;
    EXPECT_EQ(records(client, "nobody@example.net"), 0);
    EXPECT_EQ(client.socket.sent, endUnit);
    EXPECT_EQ(sizeOf(m_cache), 1U);
    EXPECT_TRUE(m_log.lines().empty());
}

TEST_F(RateHandlers, RecordsRequestIsNoUse) {
    for (unsigned int n = 0; n < capacity; ++n) {
        m_cache.find(sender(n));
    }
    ScriptedClient client;
    EXPECT_EQ(records(client, sender(0).address()), 0);
    m_cache.find(sender(capacity));
    EXPECT_FALSE(held(m_cache, sender(0)));
}

TEST_F(RateHandlers, RequestOfAnotherTypeIsRefusedWithItsRecord) {
    ScriptedClient client;
    EXPECT_EQ(EntryHandler().task(client.connection, Pdu(30, 0U)), failed);
    EXPECT_EQ(RecordHandler().task(client.connection, Pdu(28, 0U)), failed);
    EXPECT_EQ(client.socket.sent, "");
    auto const lines = m_log.lines();
    ASSERT_EQ(lines.size(), 2U);
    for (auto const& line : lines) {
        EXPECT_TRUE(line.isRecord);
        EXPECT_EQ(line.code, 0x300016AU);
        EXPECT_EQ(line.level, 0);
        EXPECT_EQ(line.format, "%s\x01%s\x01%d");
    }
    EXPECT_EQ(lines[0].fields, (std::vector<std::string>{entrySignature, "SenderRateControlDisplay", "110"}));
    EXPECT_EQ(lines[1].fields, (std::vector<std::string>{recordSignature, "SenderRateControlDisplay", "221"}));
}

TEST_F(RateHandlers, TextThatIsNoMailboxIsLoggedAndGetsNoReply) {
    std::string const tooLong = "\"" + std::string(100, 'x') + "...\" is not a mailbox: it is longer than 1024 octets";
    struct {
        std::string text;
        std::string problem; // the log escapes the text once, its line the whole once more
    } const cases[] = {
        {"", R"("" is not a mailbox: it is empty)"},
        {"two words", R"("two words" is not a mailbox: a blank, an angle bracket or a second '@' is outside quotes)"},
        {"<<>>", R"("<<>>" is not a mailbox: a blank, an angle bracket or a second '@' is outside quotes)"},
        {std::string("a\0b@c", 5), R"("a\x5cx00b@c" is not a mailbox: it holds a control character)"},
        {std::string("\0", 1), R"("\x5cx00" is not a mailbox: it holds a control character)"},
        {std::string(1U << 20, 'x'), tooLong},
        {std::string(1025, 'x'), tooLong},
    };
    for (auto const& bad : cases) {
        m_log.clear();
        ScriptedClient client;
        EXPECT_EQ(records(client, bad.text), failed);
        EXPECT_EQ(client.socket.sent, "");
        auto const lines = m_log.lines();
        ASSERT_EQ(lines.size(), 1U);
        EXPECT_EQ(lines[0].code, 0x300016BU);
        EXPECT_EQ(lines[0].format, "%s\x01%s");
        EXPECT_EQ(lines[0].fields,
                  (std::vector<std::string>{recordSignature,
                                            "EmailAddress::rfc5321Parse (code 4, EmailAddress): " + bad.problem}));
    }
    EXPECT_EQ(sizeOf(m_cache), 0U);
}

TEST_F(RateHandlers, LongestMailboxIsTaken) {
    ScriptedClient client;
    EXPECT_EQ(records(client, std::string(1024, 'x')), 0);
    EXPECT_EQ(client.socket.sent, endUnit);
}

// Throws at the n-th unit that is sent.
void failAt(ScriptedClient& client, int unit, std::function<void()> failure) {
    client.socket.onSend = [unit, failure = std::move(failure), sent = 0](std::uint32_t) mutable {
        if (sent++ == unit) {
            failure();
        }
    };
}

TEST_F(RateHandlers, FailureAtAnyUnitIsLoggedAndNoEndMarkerFollows) {
    auto const hangUp = [] {
        throw Exception("SocketIPC::send", Exception::failure).stringParameter("gone");
    };
    for (int const unit : {0, 1, 2, 3}) {
        m_cache.clear();
        m_log.clear();
        m_cache.find(sender(1));
        RefEntry const entry = m_cache.entryOf(sender(2));
        for (unsigned int const period : {7U, 8U, 9U}) {
            entry->increment(Entry::Attribute1, period, 1);
        }
        ScriptedClient lister;
        failAt(lister, unit, hangUp);
        ScriptedClient reader;
        failAt(reader, unit, hangUp);
        EXPECT_EQ(records(reader, sender(2).address()), failed);
        EXPECT_EQ(list(lister), failed);
        EXPECT_EQ(lister.socket.sent.size(), unit == 0 ? 0U : 12U + 312U * static_cast<std::size_t>(unit - 1));
        EXPECT_EQ(reader.socket.sent.size(), 36U * static_cast<std::size_t>(unit));
        auto const lines = m_log.lines();
        ASSERT_EQ(lines.size(), 2U);
        EXPECT_EQ(lines[0].code, 0x300016BU);
        EXPECT_EQ(lines[0].fields, (std::vector<std::string>{recordSignature, "SocketIPC::send (code 4): gone"}));
        EXPECT_EQ(lines[1].code, 0x300016BU);
        EXPECT_EQ(lines[1].fields, (std::vector<std::string>{entrySignature, "SocketIPC::send (code 4): gone"}));
        entry->increment(Entry::Attribute1, 7, 1); // nobody holds the locks any more
        m_cache.remove(sender(1));
    }
}

TEST(RateHandlersDeathTest, WithoutAConfigurationBothFailWithTheirRecord) {
    expectInOwnProcess([] {
        CapturingLogger const log;
        ScriptedClient client;
        EXPECT_EQ(EntryHandler().task(client.connection, Pdu(28, 0U)), failed);
        EXPECT_EQ(RecordHandler().task(client.connection, Pdu(30, Buffer("a@b", 3, true))), failed);
        EXPECT_EQ(client.socket.sent, "");
        auto const lines = log.records(0x300016B);
        ASSERT_EQ(lines.size(), 2U);
        for (auto const& line : lines) {
            EXPECT_EQ(line.fields.at(1),
                      "static Vellum::SenderRateControl::Configuration* "
                      "Vellum::SenderRateControl::Configuration::instance() (code 4, SenderRateControlCache:11): "
                      "Reputation::Configuration is null");
        }
        EXPECT_EQ(lines[0].fields[0], entrySignature);
        EXPECT_EQ(lines[1].fields[0], recordSignature);
    });
}

TEST_F(RateHandlers, BothHoldBothLocksSharedUntilTheEndMarker) {
    RefEntry const entry = m_cache.entryOf(sender(1));
    entry->increment(Entry::Attribute1, ahead, 1);
    auto const waitsForEntries = [] {
        return Entry::s_lock.isClaimed();
    };
    auto const waitsForCache = [this] {
        return m_cache.lock.isClaimed();
    };
    auto const never = [] {
        return false;
    };
    for (auto const& listing : std::vector<std::function<int(ScriptedClient&)>>{list, [](ScriptedClient& client) {
                                                                                    return records(client,
                                                                                                   sender(1).address());
                                                                                }}) {
        ScriptedClient increments;
        EXPECT_FALSE(doneBeforeTheEnd(
            increments, waitsForEntries, [&] { entry->increment(Entry::Attribute1, ahead, 1); }, listing));
        ScriptedClient adds;
        EXPECT_FALSE(doneBeforeTheEnd(
            adds, waitsForCache, [&] { m_cache.find(sender(2)); }, listing));
        m_cache.remove(sender(2));
        ScriptedClient totals;
        EXPECT_TRUE(doneBeforeTheEnd(
            totals, never,
            [&] {
                SenderRateControlRecord out{};
                entry->totals(0, out);
            },
            listing))
            << "upgrade mode goes beside a listing";
        ScriptedClient resets;
        EXPECT_TRUE(doneBeforeTheEnd(
            resets, never, [&] { entry->reset(); }, listing))
            << "takes no lock";
    }
}

TEST_F(RateHandlers, HandlersAreRegisteredForTheirTypesAsLongOnes) {
    auto& dispatcher = IPC::Dispatcher::instance(29001);
    ASSERT_TRUE(dispatcher.handler(28).isNull()) << "nothing is registered by itself";
    addEntryHandler();
    ASSERT_FALSE(dispatcher.handler(28).isNull());
    EXPECT_TRUE(dispatcher.handler(30).isNull());
    addRecordHandler();
    ASSERT_FALSE(dispatcher.handler(30).isNull());
    EXPECT_NE(dynamic_cast<EntryHandler const*>(dispatcher.handler(28).get()), nullptr);
    EXPECT_NE(dynamic_cast<RecordHandler const*>(dispatcher.handler(30).get()), nullptr);
    for (unsigned int const type : {28U, 30U}) {
        EXPECT_EQ(dispatcher.handler(type)->type(), type);
        EXPECT_TRUE(dispatcher.handler(type)->mayTakeLong());
    }
}

} // namespace
} // namespace Vellum::SenderRateControl
