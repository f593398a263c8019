#include "daemon/MetricsSettings.h"

#include "tests/daemon/SettingsRefusal.h"

#include <gtest/gtest.h>

namespace Vellum::Daemon {
namespace {

MetricsSettings parse(std::string const& lines) {
    return settingsOf("metrics", lines).metrics;
}

std::string errorOf(std::string const& lines) {
    return refusalOf([&] { parse(lines); });
}

TEST(MetricsSettings, NothingIsServedUnlessTheSettingsSayWhere) {
    EXPECT_FALSE(parse("").listen);
    EXPECT_FALSE(parse("listen = \"\"\n").listen);
    EXPECT_FALSE(Settings::load(VELLUM_SOURCE_DIR "/packaging/vellumd.toml").metrics.listen);
}

TEST(MetricsSettings, AddressesOfTheLoopbackAreTaken) {
    for (std::string const text :
         {"inet:127.0.0.1:29003", "inet:127.1.2.3:1", "inet:[::1]:29003", "inet:127.0.0.1:0"}) {
        EXPECT_EQ(parse("listen = \"" + text + "\"\n").listen->asString(), text);
    }
}

TEST(MetricsSettings, OtherAddressesMustBeAllowed) {
    for (std::string const text : {"inet:0.0.0.0:29003", "inet:128.0.0.1:29003", "inet:126.255.255.255:29003",
                                   "inet:[::]:29003", "inet:[::2]:29003"}) {
        EXPECT_EQ(errorOf("listen = \"" + text + "\"\n"),
                  "/etc/vellum/v.toml:2: [metrics] listen = \"" + text +
                      "\": expected an address of the loopback (127.0.0.1, ::1), unless \"anywhere\" is true");
        EXPECT_EQ(parse("listen = \"" + text + "\"\nanywhere = true\n").listen->asString(), text);
    }
}

TEST(MetricsSettings, WhatIsNoInternetAddressIsRefused) {
    EXPECT_EQ(errorOf("listen = \"unix:/run/metrics\"\n"),
              "/etc/vellum/v.toml:2: [metrics] listen = \"unix:/run/metrics\": expected inet:ADDRESS:PORT: metrics are "
              "asked for over HTTP");
    EXPECT_EQ(errorOf("listen = \"127.0.0.1:29003\"\n"),
              "/etc/vellum/v.toml:2: [metrics] listen = \"127.0.0.1:29003\": \"127.0.0.1:29003\" is neither "
              "inet:ADDRESS:PORT (an IPv6 address in brackets) nor unix:/PATH (at most 107 bytes)");
    EXPECT_EQ(errorOf("listen = 29003\n"), "/etc/vellum/v.toml:2: [metrics] listen = 29003: expected a text in quotes");
}

TEST(MetricsSettings, UnknownKeyIsRefused) {
    EXPECT_EQ(errorOf("port = 29003\n"),
              "/etc/vellum/v.toml:2: [metrics] unknown key \"port\": expected anywhere, listen");
}

} // namespace
} // namespace Vellum::Daemon
