// How the records of the greylist are written: a table for people, or JSON for programs.
#pragma once

#include "tools/vellumctl/ListingView.h"
#include "tools/vellumctl/Record.h"

#include <cstdint>
#include <memory>

namespace Vellum::Tools {

struct RecordOutputStyle {
    Listed listed = Listed::tuples;
    bool json = false;
    bool header = true;   // of a table
    std::int64_t now = 0; // what relative times are told from, seconds since the epoch
};

// `output` is borrowed.
//
// JSON: an array with one object on each line. "network", "sender" (or "domain"), "recipient", "state", "pass_time",
// "expiry" (seconds since the epoch); for a text with bytes that are not UTF-8 also "sender_hex" ("domain_hex",
// "recipient_hex") with all its bytes. Table: bytes that could drive a terminal are shown as escapeForLog() shows them.
std::unique_ptr<ListingOutput<Record>> makeRecordOutput(Output& output, RecordOutputStyle const& style);

} // namespace Vellum::Tools
