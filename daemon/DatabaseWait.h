// The wait for the database server at the start.
#pragma once

#include "daemon/SignalInbox.h"

#include <chrono>

namespace Vellum::Daemon {

// Waits until the database server gives us a session. That it has to wait is said once, with the reason, and so is the
// end of it; the server is asked again every `interval`.
//
// True when it did; false when SIGTERM or SIGINT came first. A SIGHUP meanwhile opens the log again, and is put back
// into the inbox for who comes after. Throws DatabaseException for what waiting does not mend, such as a password that
// the server refuses.
bool awaitDatabase(SignalInbox& signals, std::chrono::milliseconds interval = std::chrono::seconds(1));

} // namespace Vellum::Daemon
