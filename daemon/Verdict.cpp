#include "daemon/Verdict.h"

#include <array>

namespace Vellum::Daemon {

using Action = Verdict::Action;
using Reason = Verdict::Reason;

std::string_view reasonText(Reason reason) {
    static constexpr std::array<std::string_view, reasonCount> texts{
        "incomplete",     "authenticated",  "disabled", "exempt-rule", "auto-exempt",          "new",
        "restarted",      "early-retry",    "passed",   "known",       "endpoint-blacklisted", "endpoint-exempt",
        "sender-blocked", "bad-reputation",
    };
    return texts[static_cast<std::size_t>(reason)];
}

Action actionOf(Reason reason) {
    switch (reason) {
    case Reason::fresh:
    case Reason::restarted:
    case Reason::earlyRetry:
    case Reason::endpointBlacklisted:
    case Reason::senderBlocked:
    case Reason::badReputation:
        return Action::defer;
    default:
        return Action::pass;
    }
}

std::string_view actionText(Action action, Reason reason) {
    switch (action) {
    case Action::pass:
        return "pass";
    case Action::reject:
        return "reject";
    case Action::defer:
        break;
    }
    bool const greylisted = reason == Reason::fresh || reason == Reason::restarted || reason == Reason::earlyRetry;
    return greylisted ? "greylist" : "defer";
}

} // namespace Vellum::Daemon
