#include "daemon/DecisionLog.h"

#include "daemon/LogValue.h"
#include "daemon/MailCounts.h"

namespace Vellum::Daemon {
namespace {

void append(std::string& out, std::string_view key, std::string_view value) {
    constexpr std::size_t longest = 1024;
    out += key;
    if (value.size() <= longest) {
        appendLogValue(out, value);
    } else {
        appendLogValue(out, std::string(value.substr(0, longest)) + "...");
    }
}

void append(std::string& out, std::string_view key, long value) {
    out += key;
    out += std::to_string(value);
}

void appendWhereKnown(std::string& out, std::string_view key, std::string_view value) {
    if (!value.empty()) {
        append(out, key, value);
    }
}

void appendFacts(std::string& out, Verdict const& verdict, DecisionLogFacts const& facts) {
    using Reason = Verdict::Reason;
    if (verdict.isGreylisted() || verdict.reason == Reason::senderBlocked) {
        append(out, ", seconds_left=", verdict.secondsLeft);
    }
    if (verdict.reason == Reason::senderBlocked) {
        append(out, ", counter=", rateCounterName(verdict.counter));
        appendWhereKnown(out, ", user=", facts.authenticatedUser);
    } else if (verdict.reason == Reason::badReputation) {
        append(out, ", score=", static_cast<long>(verdict.score));
    } else if (!verdict.subscriber.isNull()) {
        append(out, ", subscriber=", verdict.subscriber.asString());
    } else if (verdict.reason == Reason::passed) {
        append(out, ", delay=", verdict.secondsWaited);
    } else if (verdict.reason == Reason::exemptRule) {
        append(out, ", rule=", static_cast<long>(verdict.rule));
    } else if (verdict.reason == Reason::authenticated) {
        append(out, ", user=", facts.authenticatedUser);
    }
}

} // namespace

void appendDecision(std::string& out, Verdict const& verdict, DecisionLogFacts const& facts) {
    out += "action=";
    out += actionText(verdict.action, verdict.reason);
    out += ", reason=";
    out += reasonText(verdict.reason);
    append(out, ", client_name=", facts.clientName.empty() ? "unknown" : facts.clientName);
    append(out, ", client_address=", facts.clientAddress);
    append(out, ", sender=", facts.sender.empty() ? "<>" : facts.sender);
    append(out, ", recipient=", facts.recipient);
    appendFacts(out, verdict, facts);
    appendWhereKnown(out, ", problem=", facts.problem);
    appendWhereKnown(out, ", queue_id=", facts.queueId);
}

} // namespace Vellum::Daemon
