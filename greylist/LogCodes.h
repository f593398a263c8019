// What greylisting's log records promise to log readers: codes, and the source names and line numbers some carry. The
// lines are part of the promise and do not follow the code.
#pragma once

#include "foundation/RecordFormats.h"

#include <cstdint>

namespace Vellum::GreyList {

struct LogCode {
    static constexpr std::uint32_t listTuplesWrongType = 0x3000170;
    static constexpr std::uint32_t listTuplesFailed = 0x3000171;
    static constexpr std::uint32_t listExemptionsWrongType = 0x3000172;
    static constexpr std::uint32_t listExemptionsFailed = 0x3000173;
    static constexpr std::uint32_t cacheCreated = 0x300018B;       // "%d", maxRecords()
    static constexpr std::uint32_t rowNotAdded = 0x3000198;        // "%s", exception
    static constexpr std::uint32_t recordNotStored = 0x3000199;    // "%s", why the backup leaves a record out
    static constexpr std::uint32_t daemonRefused = 0x300019A;      // "%s", one blank
    static constexpr std::uint32_t writeFailed = 0x300019B;        // source, line, exception
    static constexpr std::uint32_t restoreFileMissing = 0x300019C; // source, line, exception, path
    static constexpr std::uint32_t restoreFailed = 0x300019D;      // source, line, exception, path
    static constexpr std::uint32_t readFailed = 0x300019E;         // source, line, exception
    static constexpr std::uint32_t backupJobFailed = 0x300019F;    // "%s", exception
    static constexpr std::uint32_t reloadWrongType = 0x30001A0;
    static constexpr std::uint32_t reloadDone = 0x30001A1; // "%s", one blank
    static constexpr std::uint32_t reloadFailed = 0x30001A2;
    static constexpr std::uint32_t backupOrRestoreFailed = 0x30001A3; // "%s", exception
};

namespace Source {
inline constexpr char const* display = "GlDisplay";
inline constexpr char const* exemptRuleSet = "GlExemptRuleSet";
inline constexpr char const* recordDatabase = "GlRecordDatabase";
inline constexpr char const* dynamicExemptDatabase = "GlDynamicExemptDatabase";
} // namespace Source

} // namespace Vellum::GreyList
