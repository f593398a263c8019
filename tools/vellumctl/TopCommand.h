// `vellumctl top`: what the daemon does, live.
#pragma once

#include "tools/vellumctl/DaemonConnection.h"
#include "tools/vellumctl/Output.h"

#include <chrono>

namespace Vellum::Tools {

struct TopRequest {
    bool once = false; // one page to the output, and no terminal is needed
    bool json = false; // the daemon's answer as it is, once
    std::chrono::seconds interval{1};
};

// Shows pages on the terminal until the user has enough (q, ^C), or writes one to `output`. Throws Failure when the
// daemon cannot be asked at first; later it is said on the page, and tried again at each interval.
void showTop(DaemonPlace const& place, TopRequest const& request, Output& output);

} // namespace Vellum::Tools
