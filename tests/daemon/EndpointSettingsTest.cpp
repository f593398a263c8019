#include "daemon/EndpointSettings.h"

#include "tests/daemon/SettingsRefusal.h"

#include <gtest/gtest.h>

namespace Vellum::Daemon {
namespace {

EndpointSettings parse(std::string const& lines) {
    return settingsOf("endpoint", lines).endpoint;
}

std::string errorOf(std::string const& lines) {
    return refusalOf([&] { parse(lines); });
}

void expectDefaults(EndpointSettings const& settings) {
    EXPECT_TRUE(settings.enabled);
    EXPECT_TRUE(settings.backup);
    EXPECT_EQ(settings.windowMinutes, 30U);
}

TEST(EndpointSettings, EmptySectionAndExampleMeanTheDefaults) {
    expectDefaults(parse(""));
    expectDefaults(Settings::load(VELLUM_SOURCE_DIR "/packaging/vellumd.toml").endpoint);
}

TEST(EndpointSettings, EveryKeyIsRead) {
    EndpointSettings const settings = parse("enabled = false\nbackup = false\nwindow_minutes = 60\n");
    EXPECT_FALSE(settings.enabled);
    EXPECT_FALSE(settings.backup);
    EXPECT_EQ(settings.windowMinutes, 60U);
}

TEST(EndpointSettings, WindowShorterThanItsSlicesIsRefusedWithTheReason) {
    std::string const expected = ": expected 15 to 10080 minutes: a window is divided into 15 slices of whole minutes";
    for (std::string const window : {"14", "0", "-1", "10081", "9223372036854775807"}) {
        EXPECT_EQ(errorOf("window_minutes = " + window + "\n"),
                  "/etc/vellum/v.toml:2: [endpoint] window_minutes = " + window + expected);
    }
    EXPECT_EQ(parse("window_minutes = 15\n").windowMinutes, 15U);
    EXPECT_EQ(parse("window_minutes = 10080\n").windowMinutes, 10080U);
}

TEST(EndpointSettings, UnknownKeyIsRefused) {
    EXPECT_EQ(errorOf("window = 30\n"),
              "/etc/vellum/v.toml:2: [endpoint] unknown key \"window\": expected backup, blacklisted, "
              "block_hours, block_score, enabled, radius, text, window_minutes");
}

} // namespace
} // namespace Vellum::Daemon
