// The daemon's JSON, for people: whatever it holds, vellumctl tells it or says that it is not what was expected.
#include "fuzz/FuzzTarget.h"
#include "fuzz/TerminalText.h"
#include "tools/vellumctl/ExplanationText.h"
#include "tools/vellumctl/StatusText.h"
#include "tools/vellumctl/TopText.h"

namespace Vellum::Fuzz {
namespace {

using namespace Tools;

constexpr std::int64_t now = 1795252757; // Sat, 21 Nov 2026 09:19:17 UTC

template <class Tell>
void check(Tell tell) {
    try {
        require(isTerminalText(tell()), "what is told drives no terminal");
    } catch (Json::exception const&) {
        // main() tells that the daemon's answer was not what was expected
    }
}

void run(std::string_view input) {
    Json const answer = Json::parse(input, nullptr, false);
    if (!answer.is_object()) {
        return;
    }
    check([&] { return statusText(answer, now); });
    check([&] { return explanationText(answer, now); });
    check([&] { return previewText(answer, now); });
    check([&] { return topText(answer, nullptr); });
    check([&] { return topText(answer, &answer); });
    for (auto const tell : {loadProblem, loadedText, reputationLoadProblem, reputationLoadedText, backupText,
                            acceptedBackupText, restoredText, acceptedText, endpointLoadProblem, endpointLoadedText}) {
        check([&] { return tell(answer); });
    }
}

Target const target("answer", run);

} // namespace
} // namespace Vellum::Fuzz
