// What the families' counters lead to: thresholds, how long, and what is said. All thresholds are off by default.
#pragma once

#include "daemon/Verdict.h"
#include "foundation/Settings.h"

#include <array>
#include <cstdint>
#include <string>

namespace Vellum::Daemon {

// [rate_control], beside its sizes: what one sender may send within half an hour.
struct RateLimitSettings {
    static constexpr std::size_t counters = 5;

    std::array<std::uint32_t, counters> most{}; // by counter (RateCounter), 0: no limit
    bool strangers = false;                     // senders that have not logged in are counted, too
    long blockSeconds = 1800;
    std::string deferText = "Too much mail from this sender, please try again in %SECONDS% seconds";

    bool operator==(RateLimitSettings const&) const = default;
};

// [reputation]
struct ReputationLimitSettings {
    std::uint32_t deferScore = 0;  // from this score on, 1 to 100; 0: never
    std::uint32_t rejectScore = 0; // likewise
    std::string text = "Mail from this address has a bad reputation";
};

// [endpoint]
struct EndpointLimitSettings {
    Verdict::Action blacklisted = Verdict::Action::reject; // pass: the lists decide nothing
    std::uint32_t blockScore = 0;                          // from this score on a subscriber is blacklisted; 0: never
    long blockSeconds = 86400;
    std::string text = "Mail from this subscriber is not accepted";
};

// Throw SettingsError.
RateLimitSettings readRateLimits(SettingsTable const& rateControl);
ReputationLimitSettings readReputationLimits(SettingsTable const& reputation);
EndpointLimitSettings readEndpointLimits(SettingsTable const& endpoint);

// A text of an SMTP reply: 1 to 400 printable ASCII characters, and no placeholder (a word between percent signs) but
// "%SECONDS%" where that is allowed. Throws SettingsError.
void checkReplyText(SettingsTable const& table, std::string const& key, std::string const& text, bool withSeconds);

} // namespace Vellum::Daemon
