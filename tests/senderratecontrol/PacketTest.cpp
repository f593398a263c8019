// Both packets, byte by byte, made in memory that is full of something else.
#include "senderratecontrol/SenderRateControlDisplay.h"

#include "tests/support/RateControl.h"

#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <new>

namespace Vellum::SenderRateControl {
namespace {

template <std::size_t size>
class Expected {
  public:
    Expected& number(std::size_t offset, std::uint64_t value, std::size_t bytes) {
        for (std::size_t n = 0; n < bytes; ++n) {
            m_bytes.at(offset + n) = static_cast<unsigned char>(value >> (8 * n) & 0xff);
        }
        return *this;
    }
    Expected& text(std::size_t offset, std::string const& value) {
        std::memcpy(m_bytes.data() + offset, value.data(), value.size());
        return *this;
    }
    std::array<unsigned char, size> const& bytes() const { return m_bytes; }

  private:
    std::array<unsigned char, size> m_bytes{};
};

template <class Made, class... Arguments>
std::array<unsigned char, sizeof(Made)> bytesOf(Arguments const&... arguments) {
    alignas(Made) std::array<unsigned char, sizeof(Made)> room;
    room.fill(0xa5);
    SharedLock const hold(Entry::s_lock);
    new (room.data()) Made(arguments...);
    return room;
}

std::array<unsigned char, 304> entryPacket(EmailAddress const& of, RefEntry const& entry, unsigned int firstPeriod) {
    return bytesOf<Packet>(of, entry, firstPeriod);
}

TEST(RatePacket, EntryIsLaidOutByteForByte) {
    RefEntry const entry(true);
    entry->add(100, {0x01020300, 0x11121300, 0x21222300, 0x31323300, 0x41424300});
    entry->add(101, {4, 5, 6, 7, 8});
    entry->state(RateControlState{0x51525354});
    entry->blockedUntil(0x6162636465666768);
    entry->blockedReason(Entry::AttributeType{0x71727374});
    EXPECT_EQ(entryPacket(mailbox("ann@example.net"), entry, 100), Expected<304>()
                                                                       .number(0, 15, 4)
                                                                       .text(4, "ann@example.net")
                                                                       .number(260, 0x01020304, 4)
                                                                       .number(264, 0x11121305, 4)
                                                                       .number(268, 0x21222306, 4)
                                                                       .number(272, 0x31323307, 4)
                                                                       .number(276, 0x41424308, 4)
                                                                       .number(284, 0x51525354, 4)
                                                                       .number(288, 0x6162636465666768, 8)
                                                                       .number(296, 0x71727374, 4)
                                                                       .bytes());
}

TEST(RatePacket, NewEntryOfTheNullSenderIsItsTextAndZeros) {
    EXPECT_EQ(entryPacket(mailbox(""), RefEntry(true), 0), Expected<304>().number(0, 2, 4).text(4, "<>").bytes());
}

TEST(RatePacket, NegativeTimeKeepsItsSign) {
    RefEntry const entry(true);
    entry->blockedUntil(-2);
    EXPECT_EQ(entryPacket(mailbox("a@b"), entry, 0),
              Expected<304>().number(0, 3, 4).text(4, "a@b").number(288, static_cast<std::uint64_t>(-2), 8).bytes());
}

TEST(RatePacket, AddressOf300CharactersIsCutAt256) {
    std::string const address = std::string(255, 'a') + 'b' + std::string(44, 'c');
    EXPECT_EQ(entryPacket(mailbox(address), RefEntry(true), 0),
              Expected<304>().number(0, 256, 4).text(4, address.substr(0, 256)).bytes());
}

TEST(RatePacket, AddressesOf255And256And257CharactersHaveNoNulOfTheirOwn) {
    for (std::size_t const length : {255U, 256U, 257U}) {
        std::string const address(length, 'x');
        std::size_t const sent = std::min<std::size_t>(length, 256);
        EXPECT_EQ(entryPacket(mailbox(address), RefEntry(true), 0),
                  Expected<304>().number(0, sent, 4).text(4, address.substr(0, sent)).bytes())
            << length;
    }
}

TEST(RatePacket, OldPeriodsAreForgottenAndNotCounted) {
    RefEntry const entry(true);
    entry->add(9, {1, 1, 1, 1, 1});
    entry->add(10, {2, 0, 0, 0, 0});
    EXPECT_EQ(entryPacket(mailbox("a@b"), entry, 10),
              Expected<304>().number(0, 3, 4).text(4, "a@b").number(260, 2, 4).bytes());
    EXPECT_EQ(entry->firstPeriod(), 10U);
}

TEST(RateRecordPacket, RecordIsLaidOutByteForByte) {
    Entry::Record record(0x11121314, 0x21222324, 0x31323334, 0x41424344, 0x51525354);
    EXPECT_EQ(bytesOf<RecordPacket>(0x01020304U, record), Expected<28>()
                                                              .number(0, 0x01020304, 4)
                                                              .number(4, 0x11121314, 4)
                                                              .number(8, 0x21222324, 4)
                                                              .number(12, 0x31323334, 4)
                                                              .number(16, 0x41424344, 4)
                                                              .number(20, 0x51525354, 4)
                                                              .bytes())
        << "the sixth field is zero";
    record.reserved = 0x61626364;
    EXPECT_EQ(bytesOf<RecordPacket>(0U, record)[24], 0x64) << "unless somebody brought it";
}

TEST(RateRecordPacket, ZeroRecordIsZeros) {
    RefEntry const entry(true);
    entry->increment(Entry::AttributeType{0}, 7, 5);
    EXPECT_EQ(bytesOf<RecordPacket>(7U, entry->records().at(7)), Expected<28>().number(0, 7, 4).bytes());
}

} // namespace
} // namespace Vellum::SenderRateControl
