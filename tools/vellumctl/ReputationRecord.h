// What the daemon tells of an address's reputation: its score now, or one hour of it.
#pragma once

#include "foundation/IPAddress.h"
#include "reputation/ReputationEntry.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace Vellum::Tools {

struct ReputationRecord {
    IPAddress address;
    std::uint32_t score = 0; // 0 to 100, higher is worse
    std::uint32_t state = 0;
    std::int64_t lastModified = 0; // seconds since the epoch; 0: never

    // Takes over the payload of a reputationEntry unit (reputation/ReputationDisplay.h has its layout). Throws
    // Exception when the payload is none.
    void decode(std::string_view payload);
};

// "unset", "trusted", "watched", "blocked", or the number of another state.
std::string reputationStateText(std::uint32_t state);
// One of these four words, or their number 0 to 3.
std::optional<std::uint32_t> parseReputationState(std::string_view text);

struct ReputationHour {
    std::uint32_t period = 0; // hours since the epoch
    Reputation::Entry::Record counters{0, 0, 0, 0, 0};

    // Takes over the payload of a reputationRecord unit. Throws Exception when the payload is none.
    void decode(std::string_view payload);

    std::int64_t from() const; // seconds since the epoch
    // What the hour alone would score, 0 to 100.
    std::uint32_t score() const;
};

} // namespace Vellum::Tools
