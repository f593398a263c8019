// reputation list, reputation show, reputation set-state.
#pragma once

#include "tools/vellumctl/ListingView.h"
#include "tools/vellumctl/ReputationRecord.h"

#include <cstdint>
#include <vector>

namespace Vellum::Tools {

struct ReputationStyle {
    bool json = false;
    bool header = true;   // of a table
    std::int64_t now = 0; // what times are told from, seconds since the epoch
};

struct ReputationListRequest {
    ReputationStyle style;
    ListingView<ReputationRecord> view;
};

struct ReputationShowRequest {
    ReputationStyle style;
    IPAddress address;
};

struct ReputationSetRequest {
    bool json = false;
    IPAddress address; // IPv4
    std::uint32_t state = 0;
};

// All throw Failure.

// Lists the addresses.
//
// JSON: an array with one object on each line: "address", "score", "state" (a number), "state_name", "last_change"
// (seconds since the epoch, 0 for never).
void listReputations(DaemonConnection& daemon, ReputationListRequest const& request, Output& output, ProgressBar& bar);

// Shows the last twelve hours of one address, later ones too where the daemon's clock is ahead, and their sums. Older
// hours that the daemon has not forgotten yet are left out.
//
// JSON: an object: "address", "hours" (array of objects with "from", seconds since the epoch, "score" and the nine
// counters), oldest first.
void showReputation(DaemonConnection& daemon, ReputationShowRequest const& request, Output& output);

// Sends the request and waits until the daemon has taken it, which is all that comes of it: the daemon logs it.
void setReputationState(DaemonConnection& daemon, ReputationSetRequest const& request, Output& output);

// What showReputation() shows of what the daemon has sent: ascending, without gaps in the twelve hours.
std::vector<ReputationHour> shownHours(std::vector<ReputationHour> const& sent, std::int64_t now);

} // namespace Vellum::Tools
