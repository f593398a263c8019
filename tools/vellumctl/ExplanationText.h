// What explain tells, for people.
#pragma once

#include "tools/vellumctl/DaemonConnection.h"

#include <cstdint>
#include <string>

namespace Vellum::Tools {

// Of the daemon's answer to adminExplain (daemon/ExplanationJson.h), a line for each step in the order of the decision.
// `now`: what times are told from, seconds since the epoch.
std::string explanationText(Json const& explanation, std::int64_t now);

} // namespace Vellum::Tools
