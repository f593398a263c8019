// greylist list, greylist exemptions.
#pragma once

#include "tools/vellumctl/ListingView.h"
#include "tools/vellumctl/RecordFilter.h"
#include "tools/vellumctl/RecordOutput.h"

#include <cstdint>
#include <optional>
#include <string>

namespace Vellum::Tools {

enum class SortBy { asSent, network, sender, recipient, passTime, expiry };

struct ListRequest {
    RecordOutputStyle style;
    RecordFilter filter;
    std::optional<std::uint64_t> limit; // records shown at most
    SortBy sort = SortBy::asSent;       // otherwise all records that match are held until the listing has ended
    bool reverse = false;               // of a sorted listing
};

// Asks for a listing and shows it as showListing() does. Throws Failure.
void list(DaemonConnection& daemon, ListRequest const& request, Output& output, ProgressBar& bar);

} // namespace Vellum::Tools
