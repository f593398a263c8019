// greylist list, greylist exemptions.
#pragma once

#include "tools/vellumctl/DaemonConnection.h"
#include "tools/vellumctl/Output.h"
#include "tools/vellumctl/ProgressBar.h"
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

// Asks for a listing and writes the records that match while they come. When nobody wants more of them (the limit is
// reached, or the output's reader is gone) it asks the daemon to stop and reads on to the end marker.
// Throws Failure.
void list(DaemonConnection& daemon, ListRequest const& request, Output& output, ProgressBar& bar);

} // namespace Vellum::Tools
