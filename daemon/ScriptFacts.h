// What a backup's script holds, found by reading it once, without a database.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

namespace Vellum::Daemon {

class OpenedScript;

// A script that a backup wrote has one row on each line; rows of another form are not counted.
struct ScriptFacts {
    std::uint64_t bytes = 0;
    long modified = 0; // seconds since the epoch
    std::uint64_t tuples = 0;
    std::uint64_t exemptions = 0;
    std::uint64_t reputations = 0; // rows of "sender_reputation"
    bool ofReputation = false;     // it locks sender reputation's tables
    std::uint64_t slices = 0;      // rows of "mms_reputation"
    bool ofEndpoints = false;      // it locks the endpoint tables
    std::string otherTable;        // the first table that it locks, where a restore does not know that one
    long newest = 0;               // the latest creation time of a tuple or exemption, seconds since the epoch; 0: none
    bool complete = false;         // the last line unlocks the tables, or commits where none were locked

    // Reads the whole file from its beginning: a tenth of a second for 100 MB that are in memory. Throws Exception,
    // naming the path and the reason, when it cannot be read.
    static ScriptFacts of(OpenedScript const& script);
    // The same of a script's text in pieces, without the file's size and time: `next` answers a piece that stays until
    // the next call, and an empty one at the end. Passes on what it throws.
    static ScriptFacts ofText(std::function<std::string_view()> const& next);
};

} // namespace Vellum::Daemon
