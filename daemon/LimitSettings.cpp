#include "daemon/LimitSettings.h"

#include "daemon/Settings.h"

#include <algorithm>

namespace Vellum::Daemon {
namespace {

constexpr long secondsPerMinute = 60;
constexpr long secondsPerHour = 3600;
constexpr std::int64_t highestLimit = 1'000'000'000;
constexpr std::int64_t highestScore = 100; // of sender reputation

std::uint32_t readCount(SettingsTable const& table, char const* key, std::int64_t highest) {
    return static_cast<std::uint32_t>(table.integer(key, 0, 0, highest));
}

} // namespace

RateLimitSettings readRateLimits(SettingsTable const& rateControl) {
    static constexpr std::array<char const*, RateLimitSettings::counters> keys{
        "most_messages", "most_recipients", "most_invalid_recipients", "most_spam", "most_infected"};
    RateLimitSettings settings;
    for (std::size_t i = 0; i < keys.size(); ++i) {
        settings.most[i] = readCount(rateControl, keys[i], highestLimit);
    }
    settings.strangers = rateControl.boolean("strangers", settings.strangers);
    settings.blockSeconds =
        rateControl.integer("block_minutes", settings.blockSeconds / secondsPerMinute, 1, 10080) * secondsPerMinute;
    settings.deferText = rateControl.text("defer_text", settings.deferText);
    checkReplyText(rateControl, "defer_text", settings.deferText, true);
    return settings;
}

ReputationLimitSettings readReputationLimits(SettingsTable const& reputation) {
    ReputationLimitSettings settings;
    settings.deferScore = readCount(reputation, "defer_score", highestScore);
    settings.rejectScore = readCount(reputation, "reject_score", highestScore);
    settings.text = reputation.text("text", settings.text);
    checkReplyText(reputation, "text", settings.text, false);
    return settings;
}

EndpointLimitSettings readEndpointLimits(SettingsTable const& endpoint) {
    EndpointLimitSettings settings;
    std::string const action = endpoint.choice("blacklisted", "reject", {"reject", "defer", "pass"});
    settings.blacklisted = action == "reject"  ? Verdict::Action::reject
                           : action == "defer" ? Verdict::Action::defer
                                               : Verdict::Action::pass;
    settings.blockScore = readCount(endpoint, "block_score", highestLimit);
    settings.blockSeconds =
        endpoint.integer("block_hours", settings.blockSeconds / secondsPerHour, 1, 8760) * secondsPerHour;
    settings.text = endpoint.text("text", settings.text);
    checkReplyText(endpoint, "text", settings.text, false);
    return settings;
}

// A reply line of SMTP takes 512 octets and its text goes to strangers as it is: short, one line, plain ASCII. A word
// between percent signs is taken for a placeholder, so that a misspelt one is not found out by others.
void checkReplyText(SettingsTable const& table, std::string const& key, std::string const& text, bool withSeconds) {
    constexpr std::size_t longest = 400;
    bool const printable = std::all_of(text.begin(), text.end(), [](char c) { return c >= ' ' && c < 0x7f; });
    if (text.empty() || text.size() > longest || !printable) {
        table.refuse(key, "expected 1 to 400 printable ASCII characters");
    }
    for (std::size_t at = 0; (at = text.find('%', at)) != std::string::npos;) {
        std::size_t const end = text.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZ_", at + 1);
        bool const placeholder = end != std::string::npos && end > at + 1 && text[end] == '%';
        bool const known = withSeconds && placeholder && text.compare(at, end + 1 - at, secondsPlaceholder) == 0;
        if (placeholder && !known) {
            table.refuse(key, withSeconds ? "expected no placeholder but " + std::string(secondsPlaceholder)
                                          : "expected no placeholder");
        }
        at = placeholder ? end + 1 : at + 1;
    }
}

} // namespace Vellum::Daemon
