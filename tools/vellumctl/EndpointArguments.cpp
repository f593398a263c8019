#include "tools/vellumctl/EndpointArguments.h"

#include "foundation/Escape.h"
#include "foundation/MSISDN.h"
#include "mmsreputation/MMSReputationDatabase.h"
#include "tools/vellumctl/ArgumentChecks.h"

#include <limits>

namespace Vellum::Tools {
namespace {

std::function<bool(EndpointRecord const&, EndpointRecord const&)> orderOf(std::string const& sort) {
    if (sort.empty() || sort == "number") {
        return {}; // as they are sent
    }
    if (sort == "score") {
        return [](EndpointRecord const& a, EndpointRecord const& b) {
            return a.score < b.score;
        };
    }
    if (sort == "expiry") {
        return [](EndpointRecord const& a, EndpointRecord const& b) {
            return a.expiry < b.expiry;
        };
    }
    wrongArgument("--sort \"" + sort + "\" is not known: expected number, score or expiry");
}

int sortByOf(std::string const& sort) {
    if (sort == "score") {
        return vellum_mms_reputation_sort_by_score;
    }
    if (sort == "expiry") {
        return vellum_mms_reputation_sort_by_expiry;
    }
    if (!sort.empty() && sort != "number") {
        wrongArgument("--sort \"" + sort + "\" is not known: expected score, expiry or number");
    }
    return 0;
}

} // namespace

EndpointListRequest endpointListRequest(EndpointWords const& words, ListingWords const& listing,
                                        EndpointStyle const& style) {
    EndpointListRequest request;
    request.style = style;
    request.view.matches = [number = patternArgument("--number", words.pattern), blacklisted = words.blacklisted,
                            scored = words.scored, now = style.now](EndpointRecord const& record) {
        return (!blacklisted || record.isBlacklisted(now)) && (!scored || record.score > 0) &&
               (number.isEmpty() || number.matches(record.number));
    };
    request.view.before = orderOf(listing.sort);
    if (listing.reverse && !request.view.before) {
        request.view.before = [](EndpointRecord const& a, EndpointRecord const& b) {
            return a.number < b.number;
        };
    }
    request.view.reverse = listing.reverse;
    if (!listing.limit.empty()) {
        request.view.limit = wholeNumber("--limit", listing.limit, 1);
    }
    return request;
}

EndpointScoresRequest endpointScoresRequest(ListingWords const& listing, EndpointStyle const& style) {
    EndpointScoresRequest request;
    request.style = style;
    request.sortBy = sortByOf(listing.sort);
    if (!listing.limit.empty()) {
        request.limit = static_cast<int>(wholeNumber("--limit", listing.limit, 1, std::numeric_limits<int>::max()));
    }
    return request;
}

std::string subscriberNumber(std::string const& text) {
    if (MSISDN(text).isNull() || text.size() > MMSReputation::columnSize) {
        wrongArgument('"' + escapeForLog(text) +
                      "\" is no subscriber number: expected digits, 36 characters at most; a "
                      "+ may come first");
    }
    return text;
}

} // namespace Vellum::Tools
