#include "daemon/Decision.h"

#include "foundation/MailboxSyntax.h"
#include "greylist/Configuration.h"

#include <array>
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

Decision::Decision(GreyList::_TupleCache& tuples, GreyList::_DynamicExemptCache& exemptions, DecisionSettings settings,
                   Standing const* standing)
    : m_tuples(tuples), m_late(tuples), m_autoExemptions(tuples, exemptions), m_settings(std::move(settings)),
      m_standing(standing) {}

std::string_view stageText(Stage stage) {
    static constexpr std::array<std::string_view, 4> texts{"connect", "sender", "recipient", "end-of-message"};
    return texts[static_cast<std::size_t>(stage)];
}

Verdict Decision::at(Stage stage, Message const& message, long now) {
    switch (stage) {
    case Stage::recipient:
        return atRecipient(message, now);
    case Stage::connect:
        if (m_standing != nullptr) {
            m_standing->expect(message.client);
        }
        return passes(Reason::incomplete);
    case Stage::sender:
    case Stage::endOfMessage:
        break;
    }
    return standing(message, *m_settings.get(), now).value_or(passes(Reason::incomplete));
}

std::optional<Verdict> Decision::standing(Message const& message, DecisionSettings const& settings, long now) const {
    if (m_standing == nullptr || message.client.isNull()) {
        return std::nullopt;
    }
    return m_standing->judge(message, settings.standing, now);
}

Verdict Decision::atRecipient(Message const& message, long now) {
    if (message.client.isNull() || message.recipient.isNull()) {
        return passes(Reason::incomplete);
    }
    auto const settings = m_settings.get();
    if (auto const found = standing(message, *settings, now)) {
        return *found;
    }
    if (!message.authenticatedUser.empty()) {
        return passes(Reason::authenticated);
    }
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

Decision::Folded::Folded(Message const& message, DecisionSettings const& settings)
    : network(GreyList::Configuration::createMask(message.client)) {
    thread_local std::string senderRoom; // both keep their memory from one decision to the next
    thread_local std::string recipientRoom;
    sender = settings.folding.sender(message.sender.address(), senderRoom);
    recipient = settings.folding.recipient(message.recipient.address(), recipientRoom);
    domain = MailboxSyntax::split(sender).domain;
    canEarn = settings.autoExemptAfter > 0 && AutoExemptions::isPossibleFor(domain);
}

Verdict Decision::greylist(Message const& message, DecisionSettings const& settings, long now) {
    Folded const folded(message, settings);
    if (folded.canEarn && m_autoExemptions.isExempt(folded.network, folded.domain, now)) {
        Verdict verdict = passes(Reason::autoExempt);
        verdict.network = folded.network;
        return verdict;
    }
    GreyList::TupleDecision const tuple = m_tuples.decideAtOnce(folded.parts(), now);
    if (tuple.isLate) {
        m_late.add(folded.parts(), now);
    }
    Verdict verdict = ofTuple(tuple, now);
    verdict.network = folded.network;
    if (folded.canEarn && tuple.firstPass) {
        verdict.exemptionEarned =
            m_autoExemptions.countPass(folded.network, folded.domain, folded.parts(), settings.autoExemptAfter, now);
    }
    return verdict;
}

Explanation Decision::explain(Message const& message, long now, Stage stage) const {
    auto const settings = m_settings.get();
    Folded const folded(message, *settings);
    Explanation all;
    all.stage = stage;
    all.network = folded.network;
    all.sender = EmailAddress::fromAddress(folded.sender);
    all.recipient = EmailAddress::fromAddress(folded.recipient);
    all.rules = settings->exemptRules.isNull() ? 0 : settings->exemptRules->rules().size();
    if (std::uint32_t rule = 0; isExempt(message, settings->exemptRules, rule)) {
        all.rule = rule;
    }
    all.canEarnExemption = folded.canEarn;
    all.exemptUntil = folded.canEarn ? m_autoExemptions.exemptUntil(folded.network, folded.domain, now) : 0;
    all.autoExemptAfter = settings->autoExemptAfter;
    all.tuple = m_tuples.preview(folded.parts(), now);
    all.limits = settings->standing;
    if (m_standing != nullptr) {
        all.standing = m_standing->facts(message, settings->standing, now);
    }
    all.verdict = preview(message, *settings, all, now);
    return all;
}

// The steps of at(), of facts that are there already.
Verdict Decision::preview(Message const& message, DecisionSettings const& settings, Explanation const& facts,
                          long now) const {
    if (facts.stage != Stage::recipient) {
        return standing(message, settings, now).value_or(passes(Reason::incomplete));
    }
    if (message.client.isNull() || message.recipient.isNull()) {
        return passes(Reason::incomplete);
    }
    if (auto const found = standing(message, settings, now)) {
        return *found;
    }
    if (!message.authenticatedUser.empty()) {
        return passes(Reason::authenticated);
    }
    if (!settings.greylisting) {
        return passes(Reason::disabled);
    }
    Verdict verdict;
    if (facts.rule) {
        verdict = passes(Reason::exemptRule);
        verdict.rule = *facts.rule;
    } else if (facts.exemptUntil != 0) {
        verdict = passes(Reason::autoExempt);
    } else {
        verdict = ofTuple(facts.tuple, now);
    }
    verdict.network = facts.network;
    return verdict;
}

bool Decision::release(Message const& message, long now) {
    return m_tuples.release(Folded(message, *m_settings.get()).parts(), now);
}

} // namespace Vellum::Daemon
