#include "daemon/Verdict.h"

#include <array>

namespace Vellum::Daemon {

std::string_view reasonText(Verdict::Reason reason) {
    static constexpr std::array<std::string_view, reasonCount> texts{
        "incomplete", "authenticated", "disabled",    "exempt-rule", "auto-exempt",
        "new",        "restarted",     "early-retry", "passed",      "known",
    };
    return texts[static_cast<std::size_t>(reason)];
}

Verdict::Action actionOf(Verdict::Reason reason) {
    using Reason = Verdict::Reason;
    bool const defers = reason == Reason::fresh || reason == Reason::restarted || reason == Reason::earlyRetry;
    return defers ? Verdict::Action::defer : Verdict::Action::pass;
}

std::string_view actionText(Verdict::Action action) {
    return action == Verdict::Action::defer ? "greylist" : "pass";
}

} // namespace Vellum::Daemon
