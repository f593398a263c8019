#include "foundation/IPAddress.h"

#include "foundation/Exception.h"
#include "foundation/SocketAddress.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cstring>
#include <gtest/gtest.h>
#include <random>
#include <vector>

namespace Vellum {
namespace {

std::string rewritten(std::string const& text) {
    return IPAddress(text).asString(true);
}

TEST(IPAddress, DefaultIsNull) {
    IPAddress const address;
    EXPECT_TRUE(address.isNull());
    EXPECT_FALSE(address.isV4());
    EXPECT_FALSE(address.isV6());
    EXPECT_EQ(address.asString(true), "");
    EXPECT_EQ(address.asIpAddr().family, 0U);
}

TEST(IPAddress, DottedQuadReadsAndWrites) {
    for (char const* text : {"0.0.0.0", "192.0.2.1", "127.0.0.1", "255.255.255.255", "1.20.0.9"}) {
        EXPECT_TRUE(IPAddress(std::string(text)).isV4()) << text;
        EXPECT_EQ(rewritten(text), text);
    }
}

TEST(IPAddress, TextFollowsRfc5952) {
    struct Case {
        char const* read;
        char const* written;
    };
    Case const cases[] = {
        {"0:0:0:0:0:0:0:0", "::"},
        {"0:0:0:0:0:0:0:1", "::1"},
        {"2001:db8::", "2001:db8::"},
        {"2001:0DB8:0000:0001:0001:0001:0001:00AB", "2001:db8:0:1:1:1:1:ab"}, // one zero group stays
        {"2001:db8:0:0:1:0:0:1", "2001:db8::1:0:0:1"},                        // the first of two equal runs
        {"2001:0:0:1:0:0:0:1", "2001:0:0:1::1"},                              // the longest run
        {"1:0:0:0:0:0:0:0", "1::"},
        {"1:2:3:4:5:6:0:0", "1:2:3:4:5:6::"},
        {"0:0:3:4:5:6:7:8", "::3:4:5:6:7:8"},
        {"0:2:3:4:5:6:7:8", "0:2:3:4:5:6:7:8"},
        {"1:2:3:4:5:6:7:0", "1:2:3:4:5:6:7:0"},
        {"1:2:3:4:5:6:7::", "1:2:3:4:5:6:7:0"}, // "::" for one group is read, but never written
        {"ABCD:EF01:2345:6789:ABCD:EF01:2345:6789", "abcd:ef01:2345:6789:abcd:ef01:2345:6789"},
        {"::ffff:c000:201", "::ffff:192.0.2.1"},
        {"::FFFF:192.0.2.1", "::ffff:192.0.2.1"},
        {"::192.0.2.1", "::c000:201"}, // only mapped addresses are written mixed
        {"::1:2", "::1:2"},
        {"64:ff9b::192.0.2.33", "64:ff9b::c000:221"},
        {"::fffe:192.0.2.1", "::fffe:c000:201"},
        {"1::ffff:192.0.2.1", "1::ffff:c000:201"},
    };
    for (Case const& c : cases) {
        EXPECT_EQ(rewritten(c.read), c.written) << c.read;
        EXPECT_EQ(rewritten(c.written), c.written);
    }
}

TEST(IPAddress, TheFlagOfAsStringChangesNothing) {
    IPAddress const address(std::string("2001:db8::1"));
    EXPECT_EQ(address.asString(false), address.asString(true));
}

TEST(IPAddress, OtherTextIsRefused) {
    std::string const nul(1, '\0');
    std::vector<std::string> const refused = {"",
                                              " ",
                                              ".",
                                              ":",
                                              ":::",
                                              "1",
                                              "1.2.3",
                                              "1.2.3.4.5",
                                              "1.2.3.4 ",
                                              " 1.2.3.4",
                                              "1.2.3.256",
                                              "1.2.3.-1",
                                              "1.2.3.+1",
                                              "01.2.3.4",
                                              "1.2.3.04",
                                              "1.2.3.00",
                                              "0x7f.0.0.1",
                                              "1.2.3.4/32",
                                              "1.2.3.4:25",
                                              "1..2.3",
                                              "1.2.3.",
                                              "::1%eth0",
                                              "fe80::1%1",
                                              "[::1]",
                                              "[::1",
                                              "::1]",
                                              "1:2:3:4:5:6:7",
                                              "1:2:3:4:5:6:7:8:9",
                                              "1:2:3:4:5:6:7:8::",
                                              "1::2::3",
                                              "12345::",
                                              "g::",
                                              "::1 ",
                                              "::1.2.3",
                                              "::1.2.3.256",
                                              "::01.2.3.4",
                                              "1.2.3.4::",
                                              "1:2:3:4:5:6:7:1.2.3.4",
                                              "localhost",
                                              "1.2.3.4" + nul,
                                              "::1" + nul + "x",
                                              "1.2.3.4\n",
                                              "IPv6:::1",
                                              "\xd9\xa1.2.3.4"};
    for (std::string const& text : refused) {
        EXPECT_THROW(IPAddress{text}, Exception) << text;
    }
}

TEST(IPAddress, RefusalNamesTheText) {
    try {
        IPAddress(std::string("192.0.2.300\n"));
        FAIL() << "accepted";
    } catch (Exception const& caught) {
        EXPECT_EQ(caught.asString(),
                  "IPAddress::IPAddress (code 4, IPAddress): \"192.0.2.300\\n\" is not an IP address");
    }
}

TEST(IPAddress, NumberIsReadInEitherByteOrder) {
    EXPECT_EQ(IPAddress(htonl(0xc0000201), true).asString(), "192.0.2.1");
    EXPECT_EQ(IPAddress(0xc0000201U, false).asString(), "192.0.2.1");
    EXPECT_TRUE(IPAddress(0U, true).isV4());
}

TEST(IPAddress, RawFormIsTwentyBytesInHostOrderAndReadsBack) {
    ip_addr_t const raw = IPAddress(std::string("192.0.2.1")).asIpAddr();
    std::uint8_t const expected[20] = {4, 0, 0, 0, 192, 0, 2, 1}; // little-endian machine
    EXPECT_EQ(std::memcmp(&raw, expected, sizeof expected), 0);
    for (char const* text : {"192.0.2.1", "2001:db8::1", "::"}) {
        IPAddress const address{std::string(text)};
        EXPECT_EQ(IPAddress(address.asIpAddr()), address);
    }
    EXPECT_TRUE(IPAddress(ip_addr_t{}).isNull());
}

TEST(IPAddress, BytesThatTheFamilyDoesNotUseAreForgotten) {
    ip_addr_t raw{4, {192, 0, 2, 1, 77, 77}};
    EXPECT_EQ(IPAddress(raw), IPAddress(std::string("192.0.2.1")));
    raw.family = 0;
    EXPECT_EQ(IPAddress(raw), IPAddress());
}

TEST(IPAddress, UnknownFamilyIsRefused) {
    for (std::uint32_t const family : {1U, 2U, 3U, 5U, 7U, 10U, 260U, 0x04000000U, 0xffffffffU}) {
        EXPECT_THROW(IPAddress(ip_addr_t{family, {}}), Exception) << family;
    }
}

TEST(IPAddress, MappedIsTheMappedPrefixOnly) {
    auto const mapped = [](char const* text) {
        return IPAddress::isV4Mapped(IPAddress(std::string(text)));
    };
    EXPECT_TRUE(mapped("::ffff:0.0.0.0"));
    EXPECT_TRUE(mapped("::ffff:255.255.255.255"));
    EXPECT_FALSE(mapped("::fffe:192.0.2.1"));
    EXPECT_FALSE(mapped("::1:ffff:192.0.2.1"));
    EXPECT_FALSE(mapped("1::ffff:192.0.2.1"));
    EXPECT_FALSE(mapped("::192.0.2.1"));
    EXPECT_FALSE(mapped("192.0.2.1"));
    EXPECT_FALSE(IPAddress::isV4Mapped(IPAddress()));
}

TEST(IPAddress, CompatibleIsTheZeroPrefixWithoutUnspecifiedAndLoopback) {
    auto const compatible = [](char const* text) {
        return IPAddress::isV4Compatible(IPAddress(std::string(text)));
    };
    EXPECT_TRUE(compatible("::192.0.2.1"));
    EXPECT_TRUE(compatible("::2"));
    EXPECT_TRUE(compatible("::255.255.255.255"));
    EXPECT_FALSE(compatible("::"));
    EXPECT_FALSE(compatible("::1"));
    EXPECT_FALSE(compatible("::1:192.0.2.1"));
    EXPECT_FALSE(compatible("::ffff:192.0.2.1"));
    EXPECT_FALSE(compatible("0.0.0.2"));
    EXPECT_FALSE(IPAddress::isV4Compatible(IPAddress()));
}

TEST(IPAddress, OrderIsNullThenV4ThenV6ByBytes) {
    std::vector<IPAddress> const ordered = {IPAddress(),
                                            IPAddress(std::string("0.0.0.0")),
                                            IPAddress(std::string("9.255.255.255")),
                                            IPAddress(std::string("10.0.0.0")),
                                            IPAddress(std::string("192.0.2.1")),
                                            IPAddress(std::string("192.0.2.2")),
                                            IPAddress(std::string("255.255.255.255")),
                                            IPAddress(std::string("::")),
                                            IPAddress(std::string("::1")),
                                            IPAddress(std::string("::ffff:1.2.3.4")),
                                            IPAddress(std::string("2001:db8::")),
                                            IPAddress(std::string("ffff::"))};
    for (std::size_t i = 0; i < ordered.size(); ++i) {
        for (std::size_t j = 0; j < ordered.size(); ++j) {
            EXPECT_EQ(ordered[i] < ordered[j], i < j) << i << ' ' << j;
            EXPECT_EQ(ordered[i] == ordered[j], i == j) << i << ' ' << j;
        }
    }
}

// Addresses with many zero groups, where compression has choices.
TEST(IPAddress, RandomAddressesReadBackEqualAndAgreeWithTheSystem) {
    unsigned int const seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    for (int run = 0; run < 20000; ++run) {
        ip_addr_t raw{random() % 2 == 0 ? 4U : 6U, {}};
        for (std::size_t i = 0; i < (raw.family == 4 ? 4U : 16U); i += 2) {
            if (random() % 3 != 0) {
                raw.bytes[i] = static_cast<std::uint8_t>(random() % 2 == 0 ? 0 : random());
                raw.bytes[i + 1] = static_cast<std::uint8_t>(random());
            }
        }
        IPAddress const address(raw);
        std::string const text = address.asString(true);
        ASSERT_EQ(IPAddress(text), address) << text;
        char system[INET6_ADDRSTRLEN];
        ASSERT_NE(inet_ntop(raw.family == 4 ? AF_INET : AF_INET6, raw.bytes, system, sizeof system), nullptr);
        // The system writes compatible addresses mixed, too.
        if (!IPAddress::isV4Compatible(address)) {
            ASSERT_EQ(text, system);
        }
    }
}

TEST(SocketAddress, TextHasBracketsAroundV6Only) {
    EXPECT_EQ(SocketAddress(IPAddress(std::string("127.0.0.1")), 3306).asString(), "127.0.0.1:3306");
    EXPECT_EQ(SocketAddress(IPAddress(std::string("::1")), 3306).asString(), "[::1]:3306");
}

TEST(SocketAddress, EqualWhenAddressAndPortAre) {
    IPAddress const home(std::string("127.0.0.1"));
    EXPECT_EQ(SocketAddress(home, 1), SocketAddress(home, 1));
    EXPECT_FALSE(SocketAddress(home, 1) == SocketAddress(home, 2));
    EXPECT_FALSE(SocketAddress(home, 1) == SocketAddress(IPAddress(), 1));
}

} // namespace
} // namespace Vellum
