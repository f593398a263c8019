// What the daemon tells of a sender's rate: its totals of the last half hour, or one period of five minutes.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

namespace Vellum::Tools {

using RateCounts = std::array<std::uint32_t, 5>;

struct RateRecord {
    std::string sender; // as the daemon has it, cut at 256 bytes; "<>" for the null sender
    RateCounts totals{};
    std::uint32_t state = 0;
    std::int64_t blockedUntil = 0; // seconds since the epoch; 0: not blocked
    std::uint32_t reason = 0;      // the counter, 1 to 5; 0: none

    // Takes over the payload of a senderRateEntry unit (senderratecontrol/SenderRateControlDisplay.h has its layout).
    // Throws Exception when the payload is none.
    void decode(std::string_view payload);

    // `now` in seconds since the epoch. At its end a block is over.
    bool isBlocked(std::int64_t now) const { return blockedUntil > now; }
    bool isActive() const { return totals != RateCounts{}; }
};

// "normal", "blocked", or the number of another state.
std::string rateStateText(std::uint32_t state);
// "count3"; "-" for no counter.
std::string rateReasonText(std::uint32_t reason);

struct RatePeriod {
    std::uint32_t period = 0; // seconds since the epoch, divided by 300
    RateCounts counts{};

    // Takes over the payload of a senderRateRecord unit. Throws Exception when the payload is none.
    void decode(std::string_view payload);

    std::int64_t from() const; // seconds since the epoch
    std::uint64_t together() const;
};

} // namespace Vellum::Tools
