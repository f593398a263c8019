#include "daemon/MilterSettings.h"

#include "tests/daemon/SettingsRefusal.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace Vellum::Daemon {
namespace {

MilterSettings milter(std::string const& section) {
    return settingsOf("milter", section).milter;
}

std::string errorOf(std::string const& section) {
    return refusalOf([&] { milter(section); });
}

// The verdict on one header.
std::string found(MilterSettings const& settings, std::string_view name, std::string_view value) {
    ContentVerdict verdict;
    verdict.read(settings.content, name, value);
    return std::string(verdict.spam ? "spam" : "") + (verdict.infected ? "infected" : "");
}

TEST(MilterSettings, WithoutASectionThereIsNoMilterFront) {
    MilterSettings const settings = Settings::parse("", "v.toml").milter;
    EXPECT_FALSE(settings.listen);
    EXPECT_EQ(settings.socketMode, 0666U);
    EXPECT_EQ(settings.maxConnections, 2000U);
    EXPECT_EQ(settings.timeoutSeconds, 1800U);
    EXPECT_TRUE(settings.decide);
}

TEST(MilterSettings, ExampleMeansTheDefaults) {
    MilterSettings const example = Settings::load(VELLUM_SOURCE_DIR "/packaging/vellumd.toml").milter;
    EXPECT_FALSE(example.listen);
    EXPECT_EQ(example.socketMode, 0666U);
    EXPECT_EQ(example.maxConnections, 2000U);
    EXPECT_EQ(example.timeoutSeconds, 1800U);
    EXPECT_TRUE(example.decide);
    EXPECT_EQ(example.content.spam.size(), 3U);
    EXPECT_EQ(example.content.infected.size(), 2U);
}

TEST(MilterSettings, EveryKeyIsRead) {
    MilterSettings const settings =
        milter("listen = \"unix:m.sock\"\nsocket_mode = \"660\"\nmax_connections = 7\n"
               "timeout_seconds = 60\ndecide = false\nspam_headers = [\"X-A: 1\"]\ninfected_headers = []\n");
    ASSERT_TRUE(settings.listen);
    EXPECT_EQ(settings.listen->asString(), "unix:/etc/vellum/m.sock");
    EXPECT_EQ(settings.socketMode, 0660U);
    EXPECT_EQ(settings.maxConnections, 7U);
    EXPECT_EQ(settings.timeoutSeconds, 60U);
    EXPECT_FALSE(settings.decide);
    EXPECT_EQ(found(settings, "X-A", "1"), "spam");
    EXPECT_EQ(found(settings, "X-Spam-Flag", "YES"), "");
    EXPECT_EQ(found(settings, "X-Virus-Status", "Infected"), "");
}

TEST(MilterSettings, DefaultsKnowTheUsualContentFilters) {
    MilterSettings const settings = milter("");
    EXPECT_EQ(found(settings, "X-Spam-Flag", "YES"), "spam");
    EXPECT_EQ(found(settings, "X-Spam-Flag", "NO"), "");
    EXPECT_EQ(found(settings, "X-Spam-Status", "Yes, score=12.1 required=5.0\r\n\ttests=BAYES_99"), "spam");
    EXPECT_EQ(found(settings, "X-Spam-Status", "No, score=-1.0 required=5.0"), "");
    EXPECT_EQ(found(settings, "X-Spam", "Yes"), "spam");
    EXPECT_EQ(found(settings, "X-Virus-Status", "Infected (Eicar-Test-Signature)"), "infected");
    EXPECT_EQ(found(settings, "X-Virus-Status", "Clean"), "");
    EXPECT_EQ(found(settings, "X-Amavis-Alert", "INFECTED, message contains virus: Eicar"), "infected");
}

TEST(MilterSettings, MistakesAreToldWithWhatIsAllowed) {
    EXPECT_EQ(errorOf("listen = \"127.0.0.1\""),
              "/etc/vellum/v.toml:2: [milter] listen = \"127.0.0.1\": \"127.0.0.1\" is neither inet:ADDRESS:PORT (an "
              "IPv6 address in brackets) nor unix:/PATH (at most 107 bytes)");
    EXPECT_EQ(errorOf("max_connections = 0"),
              "/etc/vellum/v.toml:2: [milter] max_connections = 0: expected 1 to 100000");
    EXPECT_EQ(errorOf("timeout_seconds = 59"),
              "/etc/vellum/v.toml:2: [milter] timeout_seconds = 59: expected 60 to 86400");
    EXPECT_EQ(errorOf("spam_headers = [\"X-Spam\"]"),
              "/etc/vellum/v.toml:2: [milter] spam_headers = [\"X-Spam\"]: \"X-Spam\" is not a header's name, a colon "
              "and a pattern for its value");
}

} // namespace
} // namespace Vellum::Daemon
