// Who decides what a policy server answers.
#pragma once

#include "daemon/PolicyRequest.h"

#include <string>

namespace Vellum::Daemon {

// What the answerer keeps from one request of a connection to the next. A mail server asks about all recipients of a
// message over one connection.
struct PolicyConnectionMemory {
    std::string prependedInstance; // the message instance that has its PREPEND already; empty: none
    std::string countedInstance;   // the message instance that was counted last; empty: none
};

class PolicyAnswerer {
  public:
    virtual ~PolicyAnswerer() = default;

    // Appends one answer to `out`: "action=...\n\n". `out` may hold answers already. The request's values are valid
    // during the call only. Called by many threads at once, for one connection by one at a time.
    // When it throws, or what it appends is no answer, the mail server is told DUNNO and the log why: an error here
    // stops no mail.
    virtual void answer(PolicyRequest const& request, PolicyConnectionMemory& memory, std::string& out) = 0;
};

} // namespace Vellum::Daemon
