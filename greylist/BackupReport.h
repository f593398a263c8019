// How the last backup of the greylist went, whoever asked for it.
#pragma once

#include <cstdint>
#include <string>

namespace Vellum::GreyList {

struct BackupReport {
    bool attempted = false;
    bool accepted = false;          // the database daemon has the script in its journal
    long startedAt = 0;             // seconds since the epoch
    std::uint64_t milliseconds = 0; // from then until the daemon's answer, or the failure
    std::uint64_t tuples = 0;       // in the script
    std::uint64_t exemptions = 0;   // in the script
    std::uint64_t leftOut = 0;      // records of either kind that no row can hold
    std::uint64_t bytes = 0;        // of the script; 0 when there is none
    std::string problem;            // why it was not accepted

    // The process's report: what GlRecordDatabase::write() did last. Thread-safe.
    static BackupReport last();
    static void set(BackupReport const& report);
    // The report of a backup that could not even begin.
    static void setFailed(std::string const& problem);
};

} // namespace Vellum::GreyList
