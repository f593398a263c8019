#include "daemon/Decision.h"

#include "foundation/MailboxSyntax.h"
#include "greylist/Configuration.h"

#include <string>
#include <string_view>

namespace Vellum::Daemon {
namespace {

using Reason = Verdict::Reason;

Verdict passes(Reason reason) {
    Verdict verdict;
    verdict.reason = reason;
    return verdict;
}

// The id of the first rule that matches is written to `rule`.
bool isExempt(Message const& message, GreyList::RefExemptRuleSet const& rules, std::uint32_t& rule) {
    if (rules.isNull() || rules->rules().empty()) {
        return false;
    }
    GreyList::ExemptRuleSet::Filter const filter(message.sender, message.recipient, message.client, message.clientName);
    GreyList::RefExemptRule const& match = rules->find(filter);
    if (match.isNull()) {
        return false;
    }
    rule = match->id();
    return true;
}

Verdict ofTuple(GreyList::TupleDecision const& tuple, long now) {
    using Situation = GreyList::TupleDecision::Situation;
    Verdict verdict;
    verdict.firstSeen = tuple.firstSeen;
    if (tuple.passed()) {
        verdict.reason = tuple.firstPass ? Reason::passed : Reason::known;
        verdict.secondsWaited = now - tuple.firstSeen;
        return verdict;
    }
    verdict.reason = tuple.situation == Situation::fresh     ? Reason::fresh
                     : tuple.situation == Situation::expired ? Reason::restarted
                                                             : Reason::earlyRetry;
    verdict.action = actionOf(verdict.reason);
    verdict.secondsLeft = tuple.passTime - now;
    return verdict;
}

} // namespace

Decision::Decision(GreyList::_TupleCache& tuples, GreyList::_DynamicExemptCache& exemptions, DecisionSettings settings)
    : m_tuples(tuples), m_autoExemptions(tuples, exemptions), m_settings(std::move(settings)) {}

Verdict Decision::atRecipient(Message const& message, long now) {
    if (message.client.isNull() || message.recipient.isNull()) {
        return passes(Reason::incomplete);
    }
    if (!message.authenticatedUser.empty()) {
        return passes(Reason::authenticated);
    }
    auto const settings = m_settings.get();
    if (!settings->greylisting) {
        return passes(Reason::disabled);
    }
    if (std::uint32_t rule = 0; isExempt(message, settings->exemptRules, rule)) {
        Verdict verdict = passes(Reason::exemptRule);
        verdict.rule = rule;
        return verdict;
    }
    return greylist(message, *settings, now);
}

Verdict Decision::greylist(Message const& message, DecisionSettings const& settings, long now) {
    thread_local std::string senderRoom; // both keep their memory from one decision to the next
    thread_local std::string recipientRoom;
    std::string_view const sender = settings.folding.sender(message.sender.address(), senderRoom);
    std::string_view const recipient = settings.folding.recipient(message.recipient.address(), recipientRoom);
    IPAddressMask const network = GreyList::Configuration::createMask(message.client);
    std::string_view const domain = MailboxSyntax::split(sender).domain;
    bool const canEarn = settings.autoExemptAfter > 0 && AutoExemptions::isPossibleFor(domain);

    if (canEarn && m_autoExemptions.isExempt(network, domain, now)) {
        Verdict verdict = passes(Reason::autoExempt);
        verdict.network = network;
        return verdict;
    }
    GreyList::TupleParts const parts(network, sender, recipient);
    GreyList::TupleDecision const tuple = m_tuples.decide(parts, now);
    Verdict verdict = ofTuple(tuple, now);
    verdict.network = network;
    if (canEarn && tuple.firstPass) {
        verdict.exemptionEarned = m_autoExemptions.countPass(network, domain, parts, settings.autoExemptAfter, now);
    }
    return verdict;
}

} // namespace Vellum::Daemon
