// What adminExplain answers.
//
//   {"verdict": {"action", "reason", "seconds_left", "stage": "recipient", "sender" or "connect"},
//    "client": {"address", "name", "user", "network"}, "sender", "recipient",   both folded; null where none was given
//    "endpoint": null where subscribers are not looked up, else
//                {"subscriber": text or null, "exempt", "blacklisted", "blacklisted_until", "score", "block_score"}
//    "rate": {"sender": text or null, "known", "block": null or {"until", "counter"},
//             "totals": {COUNTER: number}, "limits": {COUNTER: number}},        COUNTER: see rateCounterName()
//    "reputation": {"known", "score", "state", "last_modified", "defer_score", "reject_score",
//                   "hours": [{"start", "score", "messages", "recipients", "invalid_recipients", "spam",
//                              "infected"}]},       oldest first; the score is what the hour alone would have
//    "rules": {"count", "match": id or null},
//    "exemption": {"possible", "until", "after"},   of (network, domain); "after": so many tuples must pass
//    "tuple": {"situation": "new", "expired", "waiting" or "passes", "first_seen", "pass_time", "expiry"}}
//
// The stage says how far the verdict looks: without a recipient it rests on what is held against client and sender, and
// without a sender, too, on what is held against the client; "incomplete" is then: nothing.
// Times are seconds since the epoch, 0 for none. A limit or threshold of 0 is off.
#pragma once

#include "daemon/AdminJson.h"
#include "daemon/Decision.h"

namespace Vellum::Daemon {

Json asJson(Explanation const& explanation, Message const& message);
// The part "verdict" of it.
Json verdictJson(Verdict const& verdict, Stage stage);

} // namespace Vellum::Daemon
