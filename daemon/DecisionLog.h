// The log line of a decision.
//
//   action=greylist, reason=new, client_name=mx.example.org, client_address=192.0.2.1, sender=jo@example.org,
//   recipient=me@example.com, seconds_left=300, queue_id=4BXy2k
//
// (in one line). The first six keys are in every line, in this order; then follow, where they are known:
//
//   seconds_left   greylisted, reason=sender-blocked: until it may pass
//   counter        reason=sender-blocked: whose limit was passed, see MailCounts.h
//   score          reason=bad-reputation: that of the client's address
//   subscriber     reason=endpoint-...: whose address it is
//   delay          reason=passed: the seconds it had to wait
//   rule           reason=exempt-rule: the rule's id
//   user           reason=authenticated and sender-blocked: who has logged in
//   problem        reason=incomplete: what is missing or wrong
//   queue_id       the mail server's
//
// Reasons are those of Verdict.h. A client without a verified name is "unknown", the null sender "<>", and what was not
// given "". Values are written as LogValue.h says; one above 1024 bytes is cut and ends with "...".
#pragma once

#include "daemon/Verdict.h"

#include <string>
#include <string_view>

namespace Vellum::Daemon {

// What the front was told, as it came.
struct DecisionLogFacts {
    std::string_view clientName{};
    std::string_view clientAddress{};
    std::string_view sender{}; // "" for the null sender
    std::string_view recipient{};
    std::string_view authenticatedUser{};
    std::string_view queueId{};
    std::string_view problem{};
};

// Appends the line, without a line break.
void appendDecision(std::string& out, Verdict const& verdict, DecisionLogFacts const& facts);

} // namespace Vellum::Daemon
