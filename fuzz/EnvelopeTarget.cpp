// The envelopes that vellum-replay plays: a byte that chooses what is played, and the file.
#include "foundation/Escape.h"
#include "fuzz/FuzzTarget.h"
#include "fuzz/Input.h"
#include "tools/vellum-replay/EnvelopeFile.h"

#include <algorithm>

namespace Vellum::Fuzz {
namespace {

using namespace Tools;

void run(std::string_view input) {
    Input parts(input);
    unsigned int const flags = parts.byte();
    EnvelopeFile::Selection const selection{.rejected = (flags & 1U) != 0, .ignoreDelays = (flags & 2U) != 0};
    std::string const text(parts.rest());
    SkippedRows skipped;
    EnvelopeFile const file(EnvelopeFile::Text{text}, selection, skipped);
    auto const& envelopes = file.envelopes();
    auto const lines = static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n')) + 1;
    std::size_t others = 0;
    for (auto const& [event, count] : file.otherEvents()) {
        others += count;
    }
    require(envelopes.size() + skipped.count() + others <= lines, "a line is one row at most");
    require(std::is_sorted(envelopes.begin(), envelopes.end(),
                           [](Envelope const& a, Envelope const& b) { return a.firstAttempt < b.firstAttempt; }),
            "envelopes come by their first attempt");
    for (Envelope const& envelope : envelopes) {
        require(envelope.firstAttempt <= envelope.time, "no attempt comes before the first");
        require(envelope.line >= 1 && envelope.line <= lines, "an envelope tells its line");
        require(envelope.sender.find_first_of("\t\n") == std::string_view::npos, "columns are apart");
    }
    for (SkippedRows::Row const& row : skipped.first()) {
        require(escapeControls(row.reason) == row.reason, "a reason is one line of text");
    }
}

Target const target("envelope", run);

} // namespace
} // namespace Vellum::Fuzz
