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

} // namespace Vellum::Daemon
