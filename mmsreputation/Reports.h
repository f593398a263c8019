// How the last load and the last backup of endpoint reputation went, whoever asked for them.
#pragma once

#include "foundation/database/LoadReport.h"
#include "foundation/database/ScriptBackup.h"

#include <cstdint>

namespace Vellum::MMSReputation {

struct LoadReport {
    using Part = Vellum::Database::LoadReport;
    Part entries;
    Part exemptList;
    Part blacklist;

    // The cache holds all that the tables held. A reload that replaces the cache and does not ask for a part leaves
    // that part empty, and not loaded.
    bool complete() const { return entries.loaded && exemptList.loaded && blacklist.loaded; }
    // What the first part that is not loaded was missed for; empty when all are.
    std::string problem() const;

    // The process's report. Thread-safe.
    static LoadReport last();
    static void set(LoadReport const& report);
};

struct BackupReport : Vellum::Database::BackupReport {
    std::uint64_t subscribers = 0; // in the script
    std::uint64_t records = 0;     // in the script: slices of these

    // The process's report: what Database::write() did last. Thread-safe.
    static BackupReport last();
    static void set(BackupReport const& report);
    // The report of a backup that could not even begin.
    static void setFailed(std::string const& problem);
};

} // namespace Vellum::MMSReputation
