// What a replay has found, as tables for people or as JSON for programs.
#pragma once

#include "daemon/Settings.h"
#include "tools/vellum-replay/EnvelopeFile.h"
#include "tools/vellum-replay/RetryModel.h"
#include "tools/vellum-replay/Statistics.h"

#include <cstddef>
#include <ostream>
#include <string>

namespace Vellum::Tools {

// Everything a report tells of. Borrowed.
struct Findings {
    std::string const& path;
    Daemon::GreylistSettings const& settings;
    std::size_t rules; // exempt rules in force
    RetryModel const& retries;
    EnvelopeFile const& file;
    SkippedRows const& skipped;
    Statistics& statistics;
};

struct ReportOptions {
    std::size_t top = 10; // rows of each ranking
    bool perHour = false; // one row for each hour with mail, instead of one for each hour of the day
};

void writeText(std::ostream& out, Findings const& findings, ReportOptions const& options);
// One object; the same figures, with full names and seconds.
void writeJson(std::ostream& out, Findings const& findings, ReportOptions const& options);

} // namespace Vellum::Tools
