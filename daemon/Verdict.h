// What is decided of a message, why, and the facts it rests on. Fronts only translate it.
#pragma once

#include "foundation/IPAddressMask.h"

#include <cstdint>
#include <string_view>

namespace Vellum::Daemon {

struct Verdict {
    enum class Action : std::uint8_t { pass, defer };
    enum class Reason : std::uint8_t {
        incomplete,    // pass: without a client address and a recipient nothing can be decided
        authenticated, // pass: the client has logged in
        disabled,      // pass: greylisting is switched off
        exemptRule,    // pass: an administrator's rule
        autoExempt,    // pass: this network and sender domain have earned it
        fresh,         // defer: never seen, or forgotten
        restarted,     // defer: seen, but so long ago that it waits again
        earlyRetry,    // defer: the delay is not over
        passed,        // pass: it had to wait, and now passes for the first time
        known,         // pass: it has passed before
    };

    Action action = Action::pass;
    Reason reason = Reason::incomplete;

    std::uint32_t rule = 0;       // exemptRule: its id
    IPAddressMask network;        // from autoExempt on: what counts as one sender
    long firstSeen = 0;           // from fresh on: when this period began, seconds since the epoch
    long secondsLeft = 0;         // deferred: from now until the delay is over
    long secondsWaited = 0;       // passed, known: from firstSeen until now
    bool exemptionEarned = false; // passed: and with it the network and domain have earned an automatic exemption

    bool defers() const { return action == Action::defer; }
};

// As logs, listings and statistics write it: "new", "early-retry", "passed", ...
std::string_view reasonText(Verdict::Reason reason);
// What each reason leads to.
Verdict::Action actionOf(Verdict::Reason reason);
// "pass", "greylist"
std::string_view actionText(Verdict::Action action);
inline constexpr unsigned int reasonCount = static_cast<unsigned int>(Verdict::Reason::known) + 1;

} // namespace Vellum::Daemon
