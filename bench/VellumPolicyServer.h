// Our policy server, with nothing behind it and with everything.
#pragma once

#include "daemon/PolicyServer.h"

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace Vellum::Bench {

using PolicyReady = std::function<void(std::vector<Daemon::ListenAddress> const&)>;

// Answers DUNNO without a look at the request. Never returns.
[[noreturn]] void runNoopAnswerer(Daemon::PolicyServerOptions const& options, PolicyReady const& ready);

// Decides as vellumd does: settings as they are without a file, but for the capacity, which is `tuples`; that many
// tuples (PolicyLoad.h's first ones) have passed before it is ready; every decision is logged to `logFile`. What
// vellumd has besides, the database and port 29001, has no part in a decision. Never returns.
[[noreturn]] void runDecisions(Daemon::PolicyServerOptions const& options, std::uint64_t tuples,
                               std::string const& logFile, PolicyReady const& ready);

} // namespace Vellum::Bench
