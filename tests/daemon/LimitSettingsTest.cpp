#include "daemon/LimitSettings.h"

#include "tests/daemon/SettingsRefusal.h"

#include <gtest/gtest.h>

#include <string>

namespace Vellum::Daemon {
namespace {

Settings parse(std::string const& text) {
    return Settings::parse(text, "v.toml");
}

std::string errorOf(std::string const& text) {
    return refusalOf([&] { parse(text); });
}

void expectDefaults(Settings const& settings) {
    EXPECT_EQ(settings.rateLimits, RateLimitSettings());
    EXPECT_EQ(settings.rateLimits.most, (std::array<std::uint32_t, 5>{}));
    EXPECT_FALSE(settings.rateLimits.strangers);
    EXPECT_EQ(settings.rateLimits.blockSeconds, 1800);
    EXPECT_EQ(settings.reputationLimits.deferScore, 0U);
    EXPECT_EQ(settings.reputationLimits.rejectScore, 0U);
    EXPECT_EQ(settings.reputationLimits.text, ReputationLimitSettings().text);
    EXPECT_EQ(settings.endpointLimits.blacklisted, Verdict::Action::reject);
    EXPECT_EQ(settings.endpointLimits.blockScore, 0U);
    EXPECT_EQ(settings.endpointLimits.blockSeconds, 86400);
    EXPECT_EQ(settings.endpointLimits.text, EndpointLimitSettings().text);
}

TEST(LimitSettings, EverythingIsOffByDefault) {
    expectDefaults(parse(""));
}

TEST(LimitSettings, ExampleMeansTheDefaults) {
    expectDefaults(Settings::load(VELLUM_SOURCE_DIR "/packaging/vellumd.toml"));
}

TEST(LimitSettings, EveryKeyIsRead) {
    Settings const settings = parse("[rate_control]\nmost_messages = 1\nmost_recipients = 2\n"
                                    "most_invalid_recipients = 3\nmost_spam = 4\nmost_infected = 5\nblock_minutes = 6\n"
                                    "strangers = true\n"
                                    "defer_text = \"wait %SECONDS%\"\n"
                                    "[reputation]\ndefer_score = 40\nreject_score = 100\ntext = \"bad\"\n"
                                    "[endpoint]\nblacklisted = \"defer\"\nblock_score = 7\nblock_hours = 8\n"
                                    "text = \"no\"\n");
    EXPECT_EQ(settings.rateLimits.most, (std::array<std::uint32_t, 5>{1, 2, 3, 4, 5}));
    EXPECT_TRUE(settings.rateLimits.strangers);
    EXPECT_EQ(settings.rateLimits.blockSeconds, 360);
    EXPECT_EQ(settings.rateLimits.deferText, "wait %SECONDS%");
    EXPECT_EQ(settings.reputationLimits.deferScore, 40U);
    EXPECT_EQ(settings.reputationLimits.rejectScore, 100U);
    EXPECT_EQ(settings.reputationLimits.text, "bad");
    EXPECT_EQ(settings.endpointLimits.blacklisted, Verdict::Action::defer);
    EXPECT_EQ(settings.endpointLimits.blockScore, 7U);
    EXPECT_EQ(settings.endpointLimits.blockSeconds, 8 * 3600);
    EXPECT_EQ(settings.endpointLimits.text, "no");
    EXPECT_EQ(parse("[endpoint]\nblacklisted = \"pass\"\n").endpointLimits.blacklisted, Verdict::Action::pass);
}

TEST(LimitSettings, MistakesAreToldWithWhatIsAllowed) {
    EXPECT_EQ(errorOf("[reputation]\ndefer_score = 101\n"),
              "v.toml:2: [reputation] defer_score = 101: expected 0 to 100");
    EXPECT_EQ(errorOf("[reputation]\ntext = \"100 %SECONDS%\"\n"),
              "v.toml:2: [reputation] text = \"100 %SECONDS%\": expected no placeholder");
    EXPECT_EQ(errorOf("[rate_control]\nmost_spam = -1\n"),
              "v.toml:2: [rate_control] most_spam = -1: expected 0 to 1000000000");
    EXPECT_EQ(errorOf("[rate_control]\nblock_minutes = 0\n"),
              "v.toml:2: [rate_control] block_minutes = 0: expected 1 to 10080");
    EXPECT_EQ(errorOf("[endpoint]\nblacklisted = \"drop\"\n"),
              "v.toml:2: [endpoint] blacklisted = \"drop\": expected one of \"reject\", \"defer\", \"pass\"");
    EXPECT_EQ(errorOf("[endpoint]\ntext = \"\"\n"),
              "v.toml:2: [endpoint] text = \"\": expected 1 to 400 printable ASCII characters");
}

} // namespace
} // namespace Vellum::Daemon
