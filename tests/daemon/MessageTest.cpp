#include "daemon/Message.h"

#include <gtest/gtest.h>

#include <string>

namespace Vellum::Daemon {
namespace {

std::string client(char const* address) {
    return clientOf(IPAddress(std::string(address))).asString();
}

TEST(ClientOf, AddressOfAnIPv6SocketThatSpeaksIPv4IsTheIPv4One) {
    EXPECT_EQ(client("::ffff:192.0.2.1"), "192.0.2.1");
    EXPECT_EQ(client("::ffff:0.0.0.0"), "0.0.0.0");
    EXPECT_EQ(clientOf(IPAddress(std::string("::ffff:192.0.2.1"))), IPAddress(std::string("192.0.2.1")));
}

TEST(ClientOf, OthersStandForThemselves) {
    for (char const* address : {"192.0.2.1", "::fffe:c000:201", "::1:ffff:c000:201", "2001:db8::1", "::1"}) {
        EXPECT_EQ(client(address), address);
    }
    EXPECT_TRUE(clientOf(IPAddress()).isNull());
}

} // namespace
} // namespace Vellum::Daemon
