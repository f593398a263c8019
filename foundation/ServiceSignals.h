// The signals of a daemon.
#pragma once

#include <csignal>

namespace Vellum {

// To be called by the main thread before there is another one: SIGTERM, SIGINT and SIGHUP are blocked from then on, in
// every thread that it starts, too, so that the main thread alone takes them, when it is ready for them. They are
// answered. A connection that was closed and a file that may not grow become errors to tell instead of ends, and the
// kernel keeps the status of children also where whoever started this ignores them.
sigset_t setUpServiceSignals();

} // namespace Vellum
