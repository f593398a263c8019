// Requests on port 29001 about single messages and senders: why, let it through, count afresh.
//
//   adminExplain    request {"address": text, "sender": text, "recipient": text, "name": text, "user": text}; only the
//                   address must be there. Answered by what the daemon would answer such a message now and every fact
//                   on the way, see ExplanationJson.h. Changes nothing.
//   adminRelease    request {"address", "sender", "recipient"}, all of which must be there ("sender": "<>" for a
//                   bounce): the next message of that tuple need not wait. Answered by {"network", "sender",
//                   "recipient", "released": true, or false when it passes already}
//   adminResetRate  request {"sender"}: lifts the sender's block and forgets what was counted, so that the totals start
//                   at 0 again. Answered by {"sender", "known", "was_blocked", "forgotten_periods"}; "known": there is
//                   an entry; the last: so many periods of five minutes
//
// The last two leave a line in the log.
#pragma once

#include "daemon/Decision.h"
#include "foundation/ipc/Dispatcher.h"

#include <functional>

namespace Vellum::Daemon {

// The decision is borrowed; it outlives the dispatcher's service. `clock`: seconds since the epoch.
void addDecisionHandlers(Decision& decision, std::function<long()> const& clock,
                         IPC::Dispatcher& dispatcher = IPC::Dispatcher::instance(IPC::stateDaemonPort));

} // namespace Vellum::Daemon
