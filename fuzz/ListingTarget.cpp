// A daemon that lies to vellumctl: two bytes choose a command and its style, the rest is what the daemon sends.
#include "fuzz/CapturedOutput.h"
#include "fuzz/FuzzTarget.h"
#include "fuzz/Input.h"
#include "fuzz/StreamSocket.h"
#include "fuzz/TerminalText.h"
#include "tools/vellumctl/EndpointCommands.h"
#include "tools/vellumctl/Failure.h"
#include "tools/vellumctl/ListCommand.h"
#include "tools/vellumctl/MessageCommands.h"
#include "tools/vellumctl/RateCommands.h"
#include "tools/vellumctl/ReputationCommands.h"

namespace Vellum::Fuzz {
namespace {

using namespace Tools;

constexpr std::int64_t now = 1795252757; // Sat, 21 Nov 2026 09:19:17 UTC

struct Style {
    bool json, sorted, exemptions, limited;
};

template <class View>
View all(Style const& style) {
    View view;
    view.matches = [](auto const&) {
        return true;
    };
    if (style.limited) {
        view.limit = 2;
    }
    return view;
}

MessageRequest message(bool json) {
    return {.address = "192.0.2.1",
            .sender = "a@example.org",
            .recipient = "b@example.net",
            .name = {},
            .user = {},
            .json = json,
            .now = now};
}

void command(unsigned int which, DaemonConnection& daemon, Style const& style, Output& output) {
    ProgressBar bar({}, "records");
    switch (which % 11) {
    case 0: {
        ListRequest request;
        request.style.listed = style.exemptions ? Listed::exemptions : Listed::tuples;
        request.style.json = style.json;
        request.style.now = now;
        request.sort = style.sorted ? SortBy::expiry : SortBy::asSent;
        request.reverse = style.limited;
        return list(daemon, request, output, bar);
    }
    case 1:
        return listRates(daemon, {{style.json, true, now}, all<ListingView<RateRecord>>(style)}, output, bar);
    case 2:
        return showRate(daemon, {{style.json, true, now}, "a@example.org"}, output);
    case 3:
        return listReputations(daemon, {{style.json, true, now}, all<ListingView<ReputationRecord>>(style)}, output,
                               bar);
    case 4:
        return showReputation(daemon, {{style.json, true, now}, IPAddress("192.0.2.1")}, output);
    case 5:
        return listEndpoints(daemon, {{style.json, true, now}, all<ListingView<EndpointRecord>>(style)}, output, bar);
    case 6:
        return showEndpoint(daemon, "15555550100", {style.json, true, now}, output);
    case 7:
        return removeEndpoint(daemon, "15555550100", output);
    case 8:
        return explain(daemon, message(style.json), output);
    case 9:
        return release(daemon, message(style.json), output);
    default:
        return resetRate(daemon, message(style.json), output);
    }
}

void run(std::string_view input) {
    Input parts(input);
    unsigned int const which = parts.byte();
    unsigned int const flags = parts.byte();
    Style const style{(flags & 1U) != 0, (flags & 2U) != 0, (flags & 4U) != 0, (flags & 8U) != 0};
    CapturedOutput captured;
    std::string sent;
    bool done = false;
    try {
        DaemonConnection daemon({}, std::make_unique<StreamSocket>(parts.rest(), sent));
        command(which, daemon, style, captured.output());
        done = true;
    } catch (Failure const& failed) {
        require(isTerminalText(failed.what()), "a failure drives no terminal");
    } catch (Json::exception const&) {
        // main() tells that the daemon's answer was not what was expected
    }
    require(isTerminalText(captured.text()), "what is written drives no terminal");
    bool const writesJson = style.json && which % 11 != 7;
    require(!done || !writesJson || Json::accept(captured.text()), "what is written as JSON is JSON");
}

Target const target("listing", run);

} // namespace
} // namespace Vellum::Fuzz
