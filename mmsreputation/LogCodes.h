// What endpoint reputation's log records promise to log readers: codes, and the source names some carry. Line numbers
// are part of the promise too; they stand where the records are written and do not follow the code.
#pragma once

#include <cstdint>

namespace Vellum::MMSReputation {

struct LogCode {
    static constexpr std::uint32_t cacheNotLoaded = 0x3000165; // "%s", one blank
    static constexpr std::uint32_t passedOver = 0x3000166;     // "%s", why a row or a record is left out
    static constexpr std::uint32_t removeWrongType = 0x3000167;
    static constexpr std::uint32_t removeFailed = 0x3000168;
    static constexpr std::uint32_t lookupFailed = 0x3000169;      // "%s", exception; of an address' subscriber
    static constexpr std::uint32_t listAddFailed = 0x300016C;     // operation, exception
    static constexpr std::uint32_t listRemoveFailed = 0x300016D;  // operation, exception
    static constexpr std::uint32_t toolReadFailed = 0x300016E;    // operation, exception
    static constexpr std::uint32_t toolRemovalFailed = 0x300016F; // "%s", exception
    static constexpr std::uint32_t listWrongType = 0x3000174;
    static constexpr std::uint32_t listFailed = 0x3000175;
    static constexpr std::uint32_t scoresWrongType = 0x3000176;
    static constexpr std::uint32_t scoresFailed = 0x3000177;
    static constexpr std::uint32_t daemonRefused = 0x3000179;    // "%s", one blank
    static constexpr std::uint32_t writeFailed = 0x300017A;      // source, line, exception
    static constexpr std::uint32_t scriptFailed = 0x300017B;     // operation, source, line, exception, path
    static constexpr std::uint32_t scriptMissing = 0x300017C;    // the same, when there is no such file
    static constexpr std::uint32_t readFailed = 0x300017D;       // source, line, exception
    static constexpr std::uint32_t showScoresFailed = 0x300017E; // source, line, exception
    static constexpr std::uint32_t backupJobFailed = 0x300017F;  // "%s", exception
    static constexpr std::uint32_t reloadWrongType = 0x3000180;
    static constexpr std::uint32_t reloadDone = 0x3000181; // "%s", one blank
    static constexpr std::uint32_t reloadFailed = 0x3000182;
    static constexpr std::uint32_t backupOrRestoreFailed = 0x3000183; // "%s", exception
};

namespace Source {
inline constexpr char const* reputation = "MMSReputation";
inline constexpr char const* database = "MMSReputationDatabase";
inline constexpr char const* display = "MMSReputationDisplay";
inline constexpr char const* radius = "MMSRadius";
} // namespace Source

} // namespace Vellum::MMSReputation
