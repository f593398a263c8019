// rate list, rate show.
#pragma once

#include "tools/vellumctl/ListingView.h"
#include "tools/vellumctl/RateRecord.h"

#include <cstdint>
#include <string>
#include <vector>

namespace Vellum::Tools {

struct RateStyle {
    bool json = false;
    bool header = true;   // of a table
    std::int64_t now = 0; // what times are judged and told from, seconds since the epoch
};

struct RateListRequest {
    RateStyle style;
    ListingView<RateRecord> view;
};

struct RateShowRequest {
    RateStyle style;
    std::string sender; // a mailbox
};

// Both throw Failure.

// Lists the senders.
//
// JSON: an array with one object on each line: "sender" ("sender_hex" where it is not UTF-8), "totals" (five numbers),
// "state", "reason" (1 to 5, 0 for none), "blocked_until" (seconds since the epoch, 0 when not blocked).
void listRates(DaemonConnection& daemon, RateListRequest const& request, Output& output, ProgressBar& bar);

// Shows the six periods of the last half hour of one sender, later ones too where the daemon's clock is ahead, and
// their totals. Older periods that the daemon has not forgotten yet are left out.
//
// JSON: an object: "sender", "periods" (array of objects with "from", seconds since the epoch, and "counts"), "totals".
void showRate(DaemonConnection& daemon, RateShowRequest const& request, Output& output);

// What showRate() shows of what the daemon has sent: ascending, without gaps in the half hour.
std::vector<RatePeriod> shownPeriods(std::vector<RatePeriod> const& sent, std::int64_t now);

} // namespace Vellum::Tools
