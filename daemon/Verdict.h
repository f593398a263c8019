// What is decided of a message, why, and the facts it rests on. Fronts only translate it.
#pragma once

#include "foundation/IPAddressMask.h"
#include "foundation/MSISDN.h"

#include <cstdint>
#include <string_view>

namespace Vellum::Daemon {

struct Verdict {
    enum class Action : std::uint8_t { pass, defer, reject };
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

        endpointBlacklisted, // as the settings say: the subscriber is on the blacklist, or was put there by his score
        endpointExempt,      // pass: the subscriber is on the exempt list
        senderBlocked,       // defer: the sender has sent too much
        badReputation,       // defer or reject, by the score of the client's address
    };

    Action action = Action::pass;
    Reason reason = Reason::incomplete;

    std::uint32_t rule = 0;       // exemptRule: its id
    IPAddressMask network;        // from autoExempt on: what counts as one sender
    long firstSeen = 0;           // from fresh on: when this period began, seconds since the epoch
    long secondsLeft = 0;         // greylisted, senderBlocked: from now until that is over
    long secondsWaited = 0;       // passed, known: from firstSeen until now
    bool exemptionEarned = false; // passed: and with it the network and domain have earned an automatic exemption

    MSISDN subscriber;         // endpointBlacklisted, endpointExempt: who
    std::uint32_t counter = 0; // senderBlocked: the counter whose limit was passed, 1 to 5; 0 when none is told
    std::uint32_t score = 0;   // badReputation: 0 to 100, higher is worse

    bool defers() const { return action == Action::defer; }
    bool isGreylisted() const {
        return reason == Reason::fresh || reason == Reason::restarted || reason == Reason::earlyRetry;
    }
};

// As logs, listings and statistics write it: "new", "early-retry", "passed", ...
std::string_view reasonText(Verdict::Reason reason);
// What each reason leads to; where the settings have a say, the mildest that it may lead to.
Verdict::Action actionOf(Verdict::Reason reason);
// "pass", "greylist" (deferred for its reason), "defer", "reject"
std::string_view actionText(Verdict::Action action, Verdict::Reason reason);
inline constexpr unsigned int reasonCount = static_cast<unsigned int>(Verdict::Reason::badReputation) + 1;
// Those that greylisting alone can have: the first ones.
inline constexpr unsigned int greylistReasonCount = static_cast<unsigned int>(Verdict::Reason::known) + 1;
inline constexpr unsigned int actionCount = static_cast<unsigned int>(Verdict::Action::reject) + 1;

} // namespace Vellum::Daemon
