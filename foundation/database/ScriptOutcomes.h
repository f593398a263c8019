// What became of the last scripts, as the database daemon keeps it and tells it.
//
// As text, one line each, of the codes in ascending order:
//
//   4 ran 17 1700000000               CODE ran NUMBER TIME: the last script that was run, and when it was accepted
//   4 refused 18 1700003600 REASON    CODE refused NUMBER TIME REASON: a newer one that will never be run, and when
//   that
//                                     was found
//
// Times are seconds since the epoch.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace Vellum::DatabaseDaemon {

// Of one request code.
struct ScriptOutcome {
    struct Run {
        std::uint64_t number = 0; // of the script, in the order of acceptance
        long acceptedAt = 0;
        bool operator==(Run const&) const = default;
    };
    struct Refusal {
        std::uint64_t number = 0;
        long time = 0;
        std::string reason; // one line
        bool operator==(Refusal const&) const = default;
    };

    std::optional<Run> ran;         // nothing: none that is known of
    std::optional<Refusal> refused; // only until a newer script is run
    bool operator==(ScriptOutcome const&) const = default;
};

using ScriptOutcomes = std::map<std::int32_t, ScriptOutcome>; // by request code

// Line breaks and other control characters in a reason are written visibly. What was parsed is written as it was.
std::string asText(ScriptOutcomes const& outcomes);
// Lines of any other form are passed over.
ScriptOutcomes parseScriptOutcomes(std::string_view text);

} // namespace Vellum::DatabaseDaemon
