// What sender reputation's log records promise to log readers: codes, and the source names and line numbers some carry.
// The lines are part of the promise and do not follow the code.
#pragma once

#include "foundation/RecordFormats.h"

#include <cstdint>

namespace Vellum::Reputation {

struct LogCode {
    static constexpr std::uint32_t rowNotAdded = 0x3000178;           // "%s", exception
    static constexpr std::uint32_t daemonRefused = 0x3000184;         // "%s", one blank
    static constexpr std::uint32_t recordNotStored = 0x3000185;       // "%s", what the backup leaves out, and why
    static constexpr std::uint32_t restoreFileMissing = 0x3000186;    // source, line, exception, path
    static constexpr std::uint32_t restoreFailed = 0x3000187;         // source, line, exception, path
    static constexpr std::uint32_t readFailed = 0x3000188;            // source, line, exception
    static constexpr std::uint32_t backupJobFailed = 0x3000189;       // "%s", exception
    static constexpr std::uint32_t backupOrRestoreFailed = 0x300018A; // "%s", exception
    static constexpr std::uint32_t listEntriesWrongType = 0x300018C;
    static constexpr std::uint32_t listEntriesFailed = 0x300018D;
    static constexpr std::uint32_t listRecordsWrongType = 0x300018E;
    static constexpr std::uint32_t listRecordsFailed = 0x300018F;
    static constexpr std::uint32_t setStateWrongType = 0x3000190;
    static constexpr std::uint32_t setStateLength = 0x3000191; // source, line
    static constexpr std::uint32_t setStateRange = 0x3000192;  // source, line
    static constexpr std::uint32_t setStateDone = 0x3000193;   // "%s", address
    static constexpr std::uint32_t setStateFailed = 0x3000194;
    static constexpr std::uint32_t reloadWrongType = 0x3000195;
    static constexpr std::uint32_t reloadDone = 0x3000196; // "%s", one blank
    static constexpr std::uint32_t reloadFailed = 0x3000197;
};

namespace Source {
inline constexpr char const* entry = "ReputationEntry";
inline constexpr char const* database = "ReputationDatabase";
inline constexpr char const* display = "ReputationDisplay";
inline constexpr char const* handlers = "ReputationHandlers";
} // namespace Source

} // namespace Vellum::Reputation
