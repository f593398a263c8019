// How the records of a listing are written: a table for people, or JSON for programs.
#pragma once

#include "tools/vellumctl/Output.h"
#include "tools/vellumctl/Record.h"

#include <cstdint>
#include <memory>

namespace Vellum::Tools {

class RecordOutput {
  public:
    virtual ~RecordOutput() = default;

    virtual void record(Record const& record, State state) = 0;
    // After the last record of a listing that came to its end.
    virtual void finish() = 0;
    // After a listing that broke: what came is written, but a JSON array stays open, so that no program takes a part
    // for the whole.
    virtual void breakOff() = 0;
};

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
std::unique_ptr<RecordOutput> makeRecordOutput(Output& output, RecordOutputStyle const& style);

} // namespace Vellum::Tools
