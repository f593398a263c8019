#include "foundation/IPAddressMask.h"

#include "foundation/Exception.h"

#include <gtest/gtest.h>
#include <random>
#include <vector>

namespace Vellum {
namespace {

IPAddress address(char const* text) {
    return IPAddress(std::string(text));
}
IPAddressMask mask(char const* text) {
    return IPAddressMask(std::string(text));
}

std::string masked(char const* text, unsigned int prefixLength) {
    IPAddress changed = address(text);
    IPAddressMask::applyMask(changed, prefixLength);
    return changed.asString(true);
}

TEST(IPAddressMask, ApplyMaskClearsTheHostBitsOfV4) {
    EXPECT_EQ(masked("255.255.255.255", 0), "0.0.0.0");
    EXPECT_EQ(masked("255.255.255.255", 1), "128.0.0.0");
    EXPECT_EQ(masked("255.255.255.255", 23), "255.255.254.0");
    EXPECT_EQ(masked("255.255.255.255", 24), "255.255.255.0");
    EXPECT_EQ(masked("255.255.255.255", 25), "255.255.255.128");
    EXPECT_EQ(masked("255.255.255.255", 31), "255.255.255.254");
    EXPECT_EQ(masked("255.255.255.255", 32), "255.255.255.255");
    EXPECT_EQ(masked("255.255.255.255", 33), "255.255.255.255");
    EXPECT_EQ(masked("255.255.255.255", 128), "255.255.255.255");
    EXPECT_EQ(masked("255.255.255.255", 0xffffffffU), "255.255.255.255");
}

TEST(IPAddressMask, ApplyMaskClearsTheHostBitsOfV6) {
    char const* const ones = "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff";
    EXPECT_EQ(masked(ones, 0), "::");
    EXPECT_EQ(masked(ones, 24), "ffff:ff00::");
    EXPECT_EQ(masked(ones, 32), "ffff:ffff::");
    EXPECT_EQ(masked(ones, 33), "ffff:ffff:8000::");
    EXPECT_EQ(masked(ones, 64), "ffff:ffff:ffff:ffff::");
    EXPECT_EQ(masked(ones, 120), "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ff00");
    EXPECT_EQ(masked(ones, 127), "ffff:ffff:ffff:ffff:ffff:ffff:ffff:fffe");
    EXPECT_EQ(masked(ones, 128), ones);
    EXPECT_EQ(masked(ones, 129), ones);
}

TEST(IPAddressMask, ApplyMaskLeavesNullAlone) {
    IPAddress null;
    IPAddressMask::applyMask(null, 0);
    EXPECT_TRUE(null.isNull());
}

TEST(IPAddressMask, TextReadsAndWrites) {
    for (char const* text : {"192.0.2.0/24", "0.0.0.0/0", "192.0.2.1/32", "2001:db8::/64", "::/0", "::1/128",
                             "::ffff:192.0.2.0/120", "", "/64", "/128"}) {
        EXPECT_EQ(mask(text).asString(), text);
        EXPECT_EQ(mask(mask(text).asString().c_str()), mask(text));
    }
}

TEST(IPAddressMask, HostBitsAreKeptAsWritten) {
    EXPECT_EQ(mask("192.0.2.77/24").asString(), "192.0.2.77/24");
    EXPECT_EQ(mask("192.0.2.77/24").prefix(), address("192.0.2.77"));
    EXPECT_FALSE(mask("192.0.2.77/24") == mask("192.0.2.0/24"));
}

TEST(IPAddressMask, BareAddressMeansItsFullLength) {
    EXPECT_EQ(mask("192.0.2.1").cidr(), 32U);
    EXPECT_EQ(mask("2001:db8::1").cidr(), 128U);
}

TEST(IPAddressMask, OtherTextIsRefused) {
    for (char const* text : {"192.0.2.0/33",
                             "2001:db8::/129",
                             "192.0.2.0/",
                             "/0",
                             "/129",
                             "/",
                             "192.0.2.0/ 24",
                             "192.0.2.0/24 ",
                             " 192.0.2.0/24",
                             "192.0.2.0/-1",
                             "192.0.2.0/+8",
                             "192.0.2.0/024",
                             "192.0.2.0/00",
                             "192.0.2.0/0x8",
                             "192.0.2.0/24/24",
                             "192.0.2.0/4294967296",
                             "192.0.2.0/4294967320",
                             "192.0.2.0/255.255.255.0",
                             "192.0.2/24",
                             "[::]/0",
                             "x"}) {
        EXPECT_THROW(mask(text), Exception) << text;
    }
    EXPECT_EQ(mask("192.0.2.0/0").cidr(), 0U) << "a single zero is a length";
}

TEST(IPAddressMask, RefusalNamesTheText) {
    try {
        mask("192.0.2.0/33");
        FAIL() << "accepted";
    } catch (Exception const& caught) {
        EXPECT_EQ(caught.asString(), "IPAddressMask::IPAddressMask (code 4, IPAddressMask): \"192.0.2.0/33\" is not a "
                                     "network: the prefix length is above 32");
    }
}

TEST(IPAddressMask, LengthMustFitTheFamily) {
    EXPECT_EQ(IPAddressMask(address("192.0.2.0").asIpAddr(), 32).cidr(), 32U);
    EXPECT_THROW(IPAddressMask(address("192.0.2.0").asIpAddr(), 33), Exception);
    EXPECT_EQ(IPAddressMask(address("2001:db8::").asIpAddr(), 128).cidr(), 128U);
    EXPECT_THROW(IPAddressMask(address("2001:db8::").asIpAddr(), 129), Exception);
    EXPECT_THROW(IPAddressMask(address("2001:db8::").asIpAddr(), 256), Exception) << "not cut to eight bits";
    EXPECT_EQ(IPAddressMask(ip_addr_t{}, 0), IPAddressMask());
    EXPECT_EQ(IPAddressMask(ip_addr_t{}, 128).cidr(), 128U);
    EXPECT_THROW(IPAddressMask(ip_addr_t{}, 129), Exception);
    EXPECT_THROW(IPAddressMask(ip_addr_t{5, {}}, 0), Exception) << "unknown family";
}

TEST(IPAddressMask, DefaultMatchesEverything) {
    for (char const* text : {"0.0.0.0", "192.0.2.1", "::", "2001:db8::1"}) {
        EXPECT_TRUE(IPAddressMask().matches(address(text))) << text;
    }
    EXPECT_TRUE(IPAddressMask().matches(IPAddress()));
}

TEST(IPAddressMask, NullNetworkWithALengthMatchesUnknownSendersOnly) {
    IPAddressMask const unknown(ip_addr_t{}, 64);
    EXPECT_FALSE(unknown == IPAddressMask());
    EXPECT_TRUE(unknown.matches(IPAddress()));
    EXPECT_FALSE(unknown.matches(address("::")));
    EXPECT_FALSE(unknown.matches(address("0.0.0.0")));
}

TEST(IPAddressMask, MatchesToTheLastBitOfThePrefix) {
    EXPECT_TRUE(mask("192.0.2.0/24").matches(address("192.0.2.255")));
    EXPECT_FALSE(mask("192.0.2.0/24").matches(address("192.0.3.0")));
    EXPECT_FALSE(mask("192.0.2.0/24").matches(address("192.0.1.255")));
    EXPECT_TRUE(mask("192.0.2.128/25").matches(address("192.0.2.128")));
    EXPECT_FALSE(mask("192.0.2.128/25").matches(address("192.0.2.127")));
    EXPECT_TRUE(mask("192.0.2.1/32").matches(address("192.0.2.1")));
    EXPECT_FALSE(mask("192.0.2.1/32").matches(address("192.0.2.0")));
    EXPECT_TRUE(mask("2001:db8::/33").matches(address("2001:db8:7fff::1")));
    EXPECT_FALSE(mask("2001:db8::/33").matches(address("2001:db8:8000::1")));
    EXPECT_FALSE(mask("2001:db8::1/128").matches(address("2001:db8::2")));
}

TEST(IPAddressMask, HostBitsOfTheMaskDoNotCount) {
    EXPECT_TRUE(mask("192.0.2.77/24").matches(address("192.0.2.1")));
    EXPECT_TRUE(mask("192.0.2.77/0").matches(address("10.0.0.1")));
}

TEST(IPAddressMask, LengthZeroMatchesItsOwnFamilyOnly) {
    EXPECT_TRUE(mask("0.0.0.0/0").matches(address("192.0.2.1")));
    EXPECT_FALSE(mask("0.0.0.0/0").matches(address("::")));
    EXPECT_TRUE(mask("::/0").matches(address("2001:db8::1")));
    EXPECT_FALSE(mask("::/0").matches(address("0.0.0.0")));
    EXPECT_FALSE(mask("0.0.0.0/0").matches(IPAddress()));
    EXPECT_FALSE(mask("::/0").matches(IPAddress()));
}

TEST(IPAddressMask, MappedAddressIsAnIPv6Address) {
    EXPECT_FALSE(mask("192.0.2.0/24").matches(address("::ffff:192.0.2.1")));
    EXPECT_TRUE(mask("::ffff:192.0.2.0/120").matches(address("::ffff:192.0.2.1")));
    EXPECT_FALSE(mask("::ffff:192.0.2.0/120").matches(address("192.0.2.1")));
}

TEST(IPAddressMask, OrderIsByPrefixThenLength) {
    std::vector<IPAddressMask> const ordered = {IPAddressMask(),     mask("0.0.0.0/0"),  mask("10.0.0.0/8"),
                                                mask("10.0.0.0/24"), mask("10.0.0.1/8"), mask("192.0.2.0/24"),
                                                mask("::/0"),        mask("::/128"),     mask("2001:db8::/32")};
    for (std::size_t i = 0; i < ordered.size(); ++i) {
        for (std::size_t j = 0; j < ordered.size(); ++j) {
            EXPECT_EQ(ordered[i] < ordered[j], i < j) << i << ' ' << j;
            EXPECT_EQ(ordered[i] == ordered[j], i == j) << i << ' ' << j;
        }
    }
}

TEST(IPAddressMask, TextFitsFortyThreeCharacters) {
    EXPECT_EQ(mask("2001:1111:2222:3333:4444:5555:6666:7777/128").asString().size(), 43U);
}

// matches() and applyMask() are written apart; they must agree, and text must read back.
TEST(IPAddressMask, RandomMasksMatchWhatApplyMaskLeavesEqual) {
    unsigned int const seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    for (int run = 0; run < 20000; ++run) {
        std::uint32_t const family = random() % 2 == 0 ? 4 : 6;
        ip_addr_t first{family, {}};
        for (std::uint8_t& byte : first.bytes) {
            byte = static_cast<std::uint8_t>(random());
        }
        ip_addr_t second = first;
        unsigned int const bits = family == 4 ? 32 : 128;
        unsigned int const flipped = random() % bits;
        second.bytes[flipped / 8] ^= static_cast<std::uint8_t>(0x80U >> flipped % 8);

        unsigned int const length = random() % (bits + 1);
        IPAddressMask const network(first, length);
        ASSERT_EQ(IPAddressMask(network.asString()), network);
        ASSERT_TRUE(network.matches(IPAddress(first)));
        ASSERT_EQ(network.matches(IPAddress(second)), flipped >= length) << network.asString();
        IPAddress a(first);
        IPAddress b(second);
        IPAddressMask::applyMask(a, length);
        IPAddressMask::applyMask(b, length);
        ASSERT_EQ(a == b, flipped >= length) << network.asString();
    }
}

} // namespace
} // namespace Vellum
