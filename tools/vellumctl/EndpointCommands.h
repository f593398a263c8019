// endpoint list, show, remove and reload: what port 29001 tells and does.
#pragma once

#include "tools/vellumctl/EndpointRecord.h"
#include "tools/vellumctl/ListingView.h"

#include <cstdint>
#include <memory>
#include <string>

namespace Vellum::Tools {

struct EndpointStyle {
    bool json = false;
    bool header = true;   // of a table
    std::int64_t now = 0; // what times are judged and told from, seconds since the epoch
};

struct EndpointListRequest {
    EndpointStyle style;
    ListingView<EndpointRecord> view;
};

// A table with NUMBER, SCORE, BLACKLISTED UNTIL; or a JSON array with one object on each line: "number", "score",
// "expiry" (seconds since the epoch, 0 for none). `output` is borrowed.
std::unique_ptr<ListingOutput<EndpointRecord>> endpointOutput(Output& output, EndpointStyle const& style);

// All throw Failure. `number` is a subscriber number.

// Lists the subscribers in the daemon's memory.
void listEndpoints(DaemonConnection& daemon, EndpointListRequest const& request, Output& output, ProgressBar& bar);
// Shows one subscriber; refuses one who is not in the daemon's memory. JSON: one object, as a listing's.
void showEndpoint(DaemonConnection& daemon, std::string const& number, EndpointStyle const& style, Output& output);
// Drops a subscriber's counts and automatic blacklisting. One who is not there is no failure.
void removeEndpoint(DaemonConnection& daemon, std::string const& number, Output& output);

} // namespace Vellum::Tools
