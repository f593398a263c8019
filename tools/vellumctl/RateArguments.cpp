#include "tools/vellumctl/RateArguments.h"

#include "foundation/EmailAddress.h"
#include "tools/vellumctl/ArgumentChecks.h"

namespace Vellum::Tools {
namespace {

std::function<bool(RateRecord const&, RateRecord const&)> orderOf(std::string const& sort) {
    constexpr std::string_view count = "count";
    if (sort.empty()) {
        return {};
    }
    if (sort == "sender") {
        return [](RateRecord const& a, RateRecord const& b) {
            return a.sender < b.sender;
        };
    }
    if (sort == "blocked-until") {
        return [](RateRecord const& a, RateRecord const& b) {
            return a.blockedUntil < b.blockedUntil;
        };
    }
    if (sort.size() == count.size() + 1 && sort.starts_with(count) && sort.back() >= '1' && sort.back() <= '5') {
        auto const counter = static_cast<std::size_t>(sort.back() - '1');
        return [counter](RateRecord const& a, RateRecord const& b) {
            return a.totals[counter] < b.totals[counter];
        };
    }
    wrongArgument("--sort \"" + sort + "\" is not known: expected sender, blocked-until, or count1 to count5");
}

} // namespace

RateListRequest rateListRequest(RateWords const& words, ListingWords const& listing, RateStyle const& style) {
    RateListRequest request;
    request.style = style;
    std::uint32_t const reason =
        words.reason.empty() ? 0 : static_cast<std::uint32_t>(wholeNumber("--reason", words.reason, 1, 5));
    request.view.matches = [sender = patternArgument("--sender", words.sender), reason, blocked = words.blocked,
                            active = words.active, now = style.now](RateRecord const& record) {
        return (!blocked || record.isBlocked(now)) && (!active || record.isActive()) &&
               (reason == 0 || record.reason == reason) && (sender.isEmpty() || sender.matches(record.sender));
    };
    request.view.before = orderOf(listing.sort);
    request.view.reverse = listing.reverse;
    if (!listing.limit.empty()) {
        request.view.limit = wholeNumber("--limit", listing.limit, 1);
    }
    return request;
}

RateShowRequest rateShowRequest(RateWords const& words, RateStyle const& style) {
    try {
        return {style, EmailAddress::rfc5321Parse(words.sender, false).asString()};
    } catch (Exception const& failed) {
        wrongArgument(failed.stringParameters().empty() ? failed.asString() : failed.stringParameters().front());
    }
}

} // namespace Vellum::Tools
