// How the last backup of the greylist went, whoever asked for it.
#pragma once

#include "foundation/database/ScriptBackup.h"

#include <cstdint>
#include <string>

namespace Vellum::GreyList {

struct BackupReport : Database::BackupReport {
    std::uint64_t tuples = 0;     // in the script
    std::uint64_t exemptions = 0; // in the script

    // The process's report: what GlRecordDatabase::write() did last. Thread-safe.
    static BackupReport last();
    static void set(BackupReport const& report);
    // The report of a backup that could not even begin.
    static void setFailed(std::string const& problem);
};

} // namespace Vellum::GreyList
