// A script that an administrator wants to restore, as the preview reads it: a byte that says how it is cut, and the
// text.
#include "daemon/ScriptFacts.h"
#include "fuzz/FuzzTarget.h"
#include "fuzz/Input.h"

#include <algorithm>

namespace Vellum::Fuzz {
namespace {

using Daemon::ScriptFacts;

ScriptFacts read(std::vector<std::string> const& pieces) {
    std::size_t next = 0;
    return ScriptFacts::ofText([&] { return next < pieces.size() ? std::string_view(pieces[next++]) : ""; });
}

bool same(ScriptFacts const& a, ScriptFacts const& b) {
    return a.tuples == b.tuples && a.exemptions == b.exemptions && a.reputations == b.reputations &&
           a.ofReputation == b.ofReputation && a.otherTable == b.otherTable && a.newest == b.newest &&
           a.complete == b.complete;
}

void run(std::string_view input) {
    Input parts(input);
    std::uint8_t const cuts = parts.byte();
    std::string const text(parts.rest());
    ScriptFacts const whole = read({text});
    require(same(read(inPieces(text, cuts)), whole), "a script in pieces holds what it holds");
    auto const lines = static_cast<std::uint64_t>(std::count(text.begin(), text.end(), '\n')) + 1;
    require(whole.tuples + whole.exemptions + whole.reputations <= lines, "a row takes a line");
    require(whole.newest >= 0, "the newest time is one");
}

Target const target("script_facts", run);

} // namespace
} // namespace Vellum::Fuzz
