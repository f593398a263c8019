// How the last backup of sender reputation went, whoever asked for it.
#pragma once

#include "foundation/database/ScriptBackup.h"

#include <cstdint>
#include <string>

namespace Vellum::Reputation {

struct BackupReport : Vellum::Database::BackupReport {
    std::uint64_t records = 0;   // rows of "sender_reputation" in the script
    std::uint64_t addresses = 0; // rows of "sender_reputation_state" in the script

    // The process's report: what Database::write() did last. Thread-safe.
    static BackupReport last();
    static void set(BackupReport const& report);
    // The report of a backup that could not even begin.
    static void setFailed(std::string const& problem);
};

} // namespace Vellum::Reputation
