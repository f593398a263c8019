#include "greylist/GlDisplay.h"

#include "foundation/Exception.h"
#include "tests/support/GreylistConfiguration.h"
#include "tests/support/GreylistIdentities.h"

#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <new>

namespace Vellum::GreyList {
namespace {

constexpr std::size_t size = 560;
using Bytes = std::array<unsigned char, size>;

// A packet as its bytes, made by hand from offsets; everything that is not set is zero.
class Expected {
  public:
    Expected& byte(std::size_t offset, unsigned int value) {
        m_bytes.at(offset) = static_cast<unsigned char>(value);
        return *this;
    }
    Expected& text(std::size_t offset, std::string const& value) {
        std::memcpy(m_bytes.data() + offset, value.data(), value.size());
        return *this;
    }
    Expected& number64(std::size_t offset, std::int64_t value) {
        for (std::size_t n = 0; n < 8; ++n) {
            byte(offset + n, static_cast<unsigned int>(static_cast<std::uint64_t>(value) >> (8 * n) & 0xff));
        }
        return *this;
    }
    // 192.0.2.0/24
    Expected& documentationNetwork() { return byte(4, 4).byte(8, 192).byte(9, 0).byte(10, 2).byte(11, 0).byte(24, 24); }
    Bytes const& bytes() const { return m_bytes; }

  private:
    Bytes m_bytes{};
};

// The packet, made in memory that is full of something else.
template <class... Arguments>
Bytes bytesOf(Arguments const&... arguments) {
    alignas(Packet) Bytes room;
    room.fill(0xa5);
    new (room.data()) Packet(arguments...);
    return room;
}

class PacketTest : public testing::Test {
  protected:
    InstalledConfiguration m_configuration; // a delay of 300 seconds
};

TEST_F(PacketTest, TupleIsLaidOutByteForByte) {
    Bytes const packet =
        bytesOf(tuple("192.0.2.0/24", "sender@example.net", "recipient@example.org"),
                Status(0x0102030405060708L, 0x1112131415161718L, 0x2122232425262728L), 0x0102030405060708L + 300);
    EXPECT_EQ(packet, Expected()
                          .byte(0, 1)
                          .documentationNetwork()
                          .text(28, "sender@example.net")
                          .text(285, "recipient@example.org")
                          .number64(544, 0x0102030405060708L + 300)
                          .number64(552, 0x1112131415161718L)
                          .bytes());
}

TEST_F(PacketTest, Ipv6NetworkHasItsSixteenBytesInNetworkOrder) {
    Expected expected;
    expected.byte(4, 6).byte(24, 64).text(8, "\x20\x01\x0d\xb8\x01\x02\x03\x04");
    expected.text(28, "a@b").text(285, "c@d").number64(544, 1300).number64(552, 5000);
    EXPECT_EQ(bytesOf(tuple("2001:db8:102:304::/64", "a@b", "c@d"), Status(1000, 5000, 0), 1299L), expected.bytes());
}

TEST_F(PacketTest, NullValuesAreZeros) {
    EXPECT_EQ(bytesOf(tuple("", "", ""), Status(0, 0, 0), 299L), Expected().number64(544, 300).bytes());
}

TEST_F(PacketTest, PassedOnceTheDelayIsOver) {
    TupleId const id = tuple("192.0.2.0/24", "a@b", "c@d");
    Status const status(1000, 5000, 0);
    EXPECT_EQ(Packet(id, status, 1299).passed, 0);
    EXPECT_EQ(Packet(id, status, 1300).passed, 1);
    EXPECT_EQ(Packet(id, status, 99999).passed, 1) << "its expiry is the client's to judge";
    m_configuration->minutes = 6;
    EXPECT_EQ(Packet(id, status, 1300).passed, 0);
    EXPECT_EQ(Packet(id, status, 1300).passTime, 1360);
}

TEST_F(PacketTest, LongAddressesAreCutAt256Characters) {
    std::string const sender(300, 's');
    std::string const recipient(257, 'r');
    Bytes const packet = bytesOf(tuple("192.0.2.0/24", sender, recipient), Status(1000, 5000, 0), 0L);
    EXPECT_EQ(packet, Expected()
                          .documentationNetwork()
                          .text(28, sender.substr(0, 256))
                          .text(285, recipient.substr(0, 256))
                          .number64(544, 1300)
                          .number64(552, 5000)
                          .bytes());
    EXPECT_EQ(packet[283], 's');
    EXPECT_EQ(packet[284], 0);
    EXPECT_EQ(packet[540], 'r');
    EXPECT_EQ(packet[541], 0);
}

TEST_F(PacketTest, AddressesOf256CharactersAreWhole) {
    std::string const address = std::string(255, 'x') + 'y';
    Packet const packet(tuple("192.0.2.0/24", address, address), Status(0, 0, 0), 0);
    EXPECT_EQ(std::string(packet.sender), address);
    EXPECT_EQ(std::string(packet.recipient), address);
}

TEST_F(PacketTest, ExemptionLeavesTheFieldsOfATupleZero) {
    EXPECT_EQ(bytesOf(exemption("192.0.2.0/24", "Example.org"), Status(1000, 0x1112131415161718L, 7)),
              Expected().documentationNetwork().text(28, "Example.org").number64(552, 0x1112131415161718L).bytes());
}

TEST_F(PacketTest, LongDomainIsCutAt256Characters) {
    std::string const domain(300, 'd');
    EXPECT_EQ(bytesOf(exemption("192.0.2.0/24", domain), Status(0, 5, 0)),
              Expected().documentationNetwork().text(28, domain.substr(0, 256)).number64(552, 5).bytes());
}

TEST_F(PacketTest, NegativeTimesKeepTheirSign) {
    Packet const packet(tuple("192.0.2.0/24", "a@b", "c@d"), Status(-1000, -5, 0), -700);
    EXPECT_EQ(packet.passTime, -700);
    EXPECT_EQ(packet.expiry, -5);
    EXPECT_EQ(packet.passed, 1);
}

// Counts how often the delay is asked for.
class CountingConfiguration : public AdjustableConfiguration {
  public:
    int greylistMinutes() const override {
        ++asked;
        return 5;
    }
    mutable std::atomic<int> asked{0};
};

TEST(PacketConfiguration, DelayIsReadTwiceForATupleAndNeverForAnExemption) {
    auto* const configuration = new CountingConfiguration;
    RefConfiguration const kept = RefConfiguration::instance(configuration);
    Packet const ofTuple(tuple("192.0.2.0/24", "a@b", "c@d"), Status(0, 0, 0), 0);
    EXPECT_EQ(configuration->asked, 2);
    Packet const ofExemption(exemption("192.0.2.0/24", "d"), Status(0, 0, 0));
    EXPECT_EQ(configuration->asked, 2);
}

} // namespace
} // namespace Vellum::GreyList
