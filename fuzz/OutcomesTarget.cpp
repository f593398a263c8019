// What became of scripts: the file in the journal of vellum-dbd, and what vellum-dbd tells those who ask.
#include "foundation/Escape.h"
#include "foundation/database/ScriptOutcomes.h"
#include "fuzz/FuzzTarget.h"
#include "fuzz/Input.h"

#include <algorithm>

namespace Vellum::Fuzz {
namespace {

using namespace DatabaseDaemon;

// Each line read by itself; a later one takes the place of an earlier one of its kind.
ScriptOutcomes lineByLine(std::string_view text) {
    ScriptOutcomes all;
    for (Input lines(text); !lines.isAtEnd();) {
        for (auto const& [code, outcome] : parseScriptOutcomes(lines.line())) {
            if (outcome.ran) {
                all[code].ran = outcome.ran;
            }
            if (outcome.refused) {
                all[code].refused = outcome.refused;
            }
        }
    }
    return all;
}

void run(std::string_view input) {
    ScriptOutcomes const outcomes = parseScriptOutcomes(input);
    require(outcomes == lineByLine(input), "a line means the same whatever stands around it");
    std::string const text = asText(outcomes);
    require(parseScriptOutcomes(text) == outcomes, "what is written reads back");
    require(asText(parseScriptOutcomes(text)) == text, "and is written in the same way again");
    require(std::count(text.begin(), text.end(), '\n') <= std::count(input.begin(), input.end(), '\n') + 1,
            "a line tells of one script at most");
    for (auto const& [code, outcome] : outcomes) {
        require(outcome.ran || outcome.refused, "a code is there for something that was told");
        require(!outcome.refused || escapeControls(outcome.refused->reason) == outcome.refused->reason,
                "a reason is one line of text");
    }
}

Target const target("outcomes", run);

} // namespace
} // namespace Vellum::Fuzz
