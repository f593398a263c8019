#include "tools/vellumctl/ReputationArguments.h"

#include "tools/vellumctl/ArgumentChecks.h"
#include "tools/vellumctl/RecordFilter.h"

#include <tuple>

namespace Vellum::Tools {
namespace {

using Order = std::function<bool(ReputationRecord const&, ReputationRecord const&)>;

template <class T>
Order by(T ReputationRecord::*member) {
    return [member](ReputationRecord const& a, ReputationRecord const& b) {
        return a.*member < b.*member;
    };
}

Order orderOf(std::string const& sort) {
    if (sort.empty()) {
        return {};
    }
    if (sort == "address") {
        return by(&ReputationRecord::address);
    }
    if (sort == "score") {
        return by(&ReputationRecord::score);
    }
    if (sort == "state") {
        return by(&ReputationRecord::state);
    }
    if (sort == "change") {
        return by(&ReputationRecord::lastModified);
    }
    wrongArgument("--sort \"" + sort + "\" is not known: expected address, score, state or change");
}

IPAddress addressArgument(std::string const& text) {
    try {
        return IPAddress(text);
    } catch (Exception const&) {
        wrongArgument("\"" + text + "\" is no address: expected 192.0.2.1 or 2001:db8::1");
    }
}

std::uint32_t stateArgument(char const* option, std::string const& text) {
    std::optional<std::uint32_t> const state = parseReputationState(text);
    if (!state) {
        wrongArgument(std::string(option) + "\"" + text +
                      "\" is no state: expected unset, trusted, watched, blocked, or 0 to 3");
    }
    return *state;
}

std::optional<IPAddressMask> networkArgument(std::string const& text) {
    if (text.empty()) {
        return std::nullopt;
    }
    try {
        return parseNetwork(text);
    } catch (Exception const&) {
        wrongArgument("--network \"" + text + "\" is no network: expected an address, or address/length");
    }
}

} // namespace

ReputationListRequest reputationListRequest(ReputationWords const& words, ListingWords const& listing,
                                            ReputationStyle const& style) {
    ReputationListRequest request;
    request.style = style;
    std::optional<std::uint32_t> state;
    if (!words.state.empty()) {
        state = stateArgument("--state ", words.state);
    }
    std::uint64_t const minScore = words.minScore.empty() ? 0 : wholeNumber("--min-score", words.minScore, 0, 100);
    request.view.matches = [state, minScore, network = networkArgument(words.network)](ReputationRecord const& record) {
        return (!state || record.state == *state) && record.score >= minScore &&
               (!network || network->matches(record.address));
    };
    request.view.before = orderOf(listing.sort);
    request.view.reverse = listing.reverse;
    if (!listing.limit.empty()) {
        request.view.limit = wholeNumber("--limit", listing.limit, 1);
    }
    return request;
}

ReputationShowRequest reputationShowRequest(ReputationWords const& words, ReputationStyle const& style) {
    return {style, addressArgument(words.address)};
}

ReputationSetRequest reputationSetRequest(ReputationWords const& words, bool json) {
    ReputationSetRequest request{json, addressArgument(words.address), stateArgument("", words.state)};
    if (!request.address.isV4()) {
        wrongArgument("the request holds IPv4 addresses only, not " + request.address.asString());
    }
    return request;
}

} // namespace Vellum::Tools
