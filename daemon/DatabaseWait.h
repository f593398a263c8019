// The wait for the database server at the start.
#pragma once

#include "daemon/SignalInbox.h"

#include <chrono>
#include <functional>

namespace Vellum::Daemon {

// Waits until the database server gives us a session. That it has to wait is said once, with the reason, and so is the
// end of it; the server is asked again every `interval`.
//
// True when it did; false when SIGTERM or SIGINT came first. A SIGHUP meanwhile calls `readAgain`, which may say where
// the server is from now on, and is put back into the inbox for who comes after. A signal is taken between two tries,
// of which each takes as long as the settings let a connection take. Throws DatabaseException for what waiting does not
// mend, such as a password that the server refuses.
bool awaitDatabase(SignalInbox& signals, std::function<void()> const& readAgain,
                   std::chrono::milliseconds interval = std::chrono::seconds(1));

} // namespace Vellum::Daemon
