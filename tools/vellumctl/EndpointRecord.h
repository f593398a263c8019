// What the daemon, or the score table, tells of a subscriber.
#pragma once

#include "mmsreputation/vellum_mms_reputation.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace Vellum::Tools {

struct EndpointRecord {
    // Characters of a number that a record tells; its field ends with a NUL.
    static constexpr std::size_t told = sizeof(mms_reputation_display_packet::msisdn) - 1;

    std::string number; // cut at `told` characters
    std::uint32_t score = 0;
    std::int64_t expiry = 0; // of the automatic blacklisting, seconds since the epoch; 0: none

    static EndpointRecord of(mms_reputation_display_packet const& packet);
    // Takes over the payload of an endpointEntry unit. Throws Exception when the payload is none.
    void decode(std::string_view payload);

    // `now` in seconds since the epoch. At exactly its expiry a subscriber still is.
    bool isBlacklisted(std::int64_t now) const { return expiry != 0 && now <= expiry; }
};

} // namespace Vellum::Tools
