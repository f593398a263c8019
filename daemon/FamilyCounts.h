// How many of a family are in a state that an administrator watches: for statistics.
#pragma once

#include <cstddef>

namespace Vellum::Daemon {

struct FamilyCounts {
    std::size_t blockedSenders = 0;
    std::size_t autoBlacklistedEndpoints = 0; // by their score
    std::size_t blacklistedEndpoints = 0;     // by an administrator
    std::size_t exemptEndpoints = 0;

    // Counts the endpoints as they are at `now` (seconds since the epoch), under the cache's lock shared: about a
    // millisecond. All zero when no cache was loaded.
    void countEndpoints(long now);
};

} // namespace Vellum::Daemon
