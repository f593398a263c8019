// Both requests through a real dispatcher.
#include "foundation/ipc/Dispatcher.h"
#include "senderratecontrol/SenderRateControlDisplay.h"
#include "tests/support/CapturingLogger.h"
#include "tests/support/RateControl.h"
#include "tests/support/RawClient.h"

#include <gtest/gtest.h>

namespace Vellum::SenderRateControl {
namespace {

class RateDispatch : public ProcessCache {
  protected:
    RateDispatch() {
        m_dispatcher.add(IPC::MyHandler<EntryHandler>());
        m_dispatcher.add(IPC::MyHandler<RecordHandler>());
        IPC::DispatcherOptions options;
        options.port = 0;
        m_dispatcher.start(options);
    }
    unsigned int port() const { return m_dispatcher.boundPort(); }
    static std::string recordOf(std::uint32_t period, Entry::Record const& record) {
        RecordPacket const packet(period, record);
        return rawUnit(31, {reinterpret_cast<char const*>(&packet), sizeof packet});
    }

    CapturingLogger m_log; // outlives the dispatcher's threads
    IPC::Dispatcher m_dispatcher{29001};
};

TEST_F(RateDispatch, ManySendersAndTheRecordsOfOneOnOneConnection) {
    for (unsigned int n = 0; n < capacity; ++n) {
        m_cache.entryOf(sender(n))->increment(Entry::Attribute1, 4'000'000'000, n);
    }
    RawClient client(port());
    client.send(rawUnit(28, "never read"));
    std::string const listing = client.read(12 + capacity * 312 + 8);
    EXPECT_EQ(listing.substr(0, 12), rawUnit(3, std::string("\x88\x13\0\0", 4)));
    for (unsigned int n = 0; n < capacity; ++n) {
        std::string const record = listing.substr(12 + n * 312, 312);
        ASSERT_EQ(record.substr(12, sender(n).address().size()), sender(n).address());
        std::uint32_t total = 0;
        std::memcpy(&total, record.data() + 8 + 260, sizeof total);
        ASSERT_EQ(total, n);
    }
    client.send(rawUnit(30, sender(3).address()) + rawUnit(28));
    EXPECT_EQ(client.read(36 + 8), recordOf(4'000'000'000, {3, 0, 0, 0, 0}) + rawUnit(4));
    EXPECT_EQ(client.read(listing.size()), listing);
}

TEST_F(RateDispatch, BadSendersAreLoggedAndNeitherConnectionNorDaemonComeToHarm) {
    m_cache.entryOf(sender(1))->increment(Entry::Attribute5, 7, 9);
    RawClient client(port());
    for (std::string const& bad : {std::string(), std::string("no mailbox"), std::string(1U << 20, 'x'),
                                   std::string("a\0b@c", 5), std::string(5, '\0'), std::string("\xff\x01@")}) {
        m_log.clear();
        client.send(rawUnit(30, bad) + rawUnit(30, sender(1).address()));
        EXPECT_EQ(client.read(36 + 8), recordOf(7, {0, 0, 0, 0, 9}) + rawUnit(4)) << "no reply but the next one's";
        EXPECT_EQ(m_log.records(0x300016B).size(), 1U);
    }
    RawClient other(port());
    other.send(rawUnit(30, sender(1).address()));
    EXPECT_EQ(other.read(36 + 8), recordOf(7, {0, 0, 0, 0, 9}) + rawUnit(4));
    EXPECT_EQ(sizeOf(m_cache), 1U);
}

TEST_F(RateDispatch, ClientThatReadsNothingDoesNotHoldUpCounting) {
    for (unsigned int n = 0; n < capacity; ++n) {
        m_cache.find(sender(n));
    }
    RawClient client(port());
    client.send(rawUnit(28));
    std::string const beginning = client.read(12);
    m_cache.entryOf(sender(capacity))->increment(Entry::Attribute1, 7, 1); // needs both locks alone
    EXPECT_EQ(client.read(capacity * 312 + 8).substr(capacity * 312), rawUnit(4));
}

} // namespace
} // namespace Vellum::SenderRateControl
