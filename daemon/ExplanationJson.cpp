#include "daemon/ExplanationJson.h"

#include "daemon/MailCounts.h"
#include "reputation/ScoreCalculator.h"

#include <string>

namespace Vellum::Daemon {
namespace {

Json textOrNull(std::string const& text) {
    return text.empty() ? Json() : Json(text);
}

Json endpointJson(Explanation const& all) {
    Standing::Facts const& facts = all.standing;
    if (!facts.subscribersKnown) {
        return {};
    }
    return {{"subscriber", textOrNull(facts.subscriber.asString())},
            {"exempt", facts.endpoint.exempt},
            {"blacklisted", facts.endpoint.blacklisted},
            {"blacklisted_until", facts.endpoint.blacklistedUntil},
            {"score", facts.endpoint.score},
            {"block_score", all.limits.endpoint.blockScore}};
}

Json countersJson(std::array<std::uint32_t, RateLimitSettings::counters> const& counts) {
    Json json = Json::object();
    for (std::size_t i = 0; i < counts.size(); ++i) {
        json[std::string(rateCounterName(static_cast<std::uint32_t>(i + 1)))] = counts[i];
    }
    return json;
}

Json rateJson(Explanation const& all) {
    Standing::Facts const& facts = all.standing;
    Json block;
    if (facts.block) {
        block = {{"until", facts.block->until}, {"counter", rateCounterName(facts.block->counter)}};
    }
    return {{"sender", textOrNull(facts.accountable.address())},
            {"known", facts.rate.known},
            {"block", block},
            {"totals", countersJson(facts.rate.totals)},
            {"limits", countersJson(all.limits.rate.most)}};
}

Json reputationJson(Explanation const& all) {
    Standing::Facts const& facts = all.standing;
    Json hours = Json::array();
    for (auto const& [period, record] : facts.hours) {
        hours.push_back({{"start", std::int64_t{period} * Reputation::secondsPerPeriod},
                         {"score", Reputation::ScoreCalculator::hourScore(record)},
                         {"messages", record.messageCount},
                         {"recipients", record.recipients},
                         {"invalid_recipients", record.invalidRecipients},
                         {"spam", record.spam},
                         {"infected", record.infected}});
    }
    return {{"known", facts.score.has_value()},
            {"score", facts.score.value_or(0)},
            {"state", static_cast<std::uint32_t>(facts.state)},
            {"last_modified", facts.lastModified},
            {"defer_score", all.limits.reputation.deferScore},
            {"reject_score", all.limits.reputation.rejectScore},
            {"hours", hours}};
}

char const* situationText(GreyList::TupleDecision::Situation situation) {
    using Situation = GreyList::TupleDecision::Situation;
    switch (situation) {
    case Situation::fresh:
        return "new";
    case Situation::expired:
        return "expired";
    case Situation::early:
        return "waiting";
    case Situation::passes:
        break;
    }
    return "passes";
}

// Of a tuple that is not there no times are told: they are those that it would get.
Json tupleJson(GreyList::TupleDecision const& tuple) {
    bool const there = tuple.situation == GreyList::TupleDecision::Situation::early || tuple.passed();
    return {{"situation", situationText(tuple.situation)},
            {"first_seen", there ? tuple.firstSeen : 0},
            {"pass_time", there ? tuple.passTime : 0},
            {"expiry", there ? tuple.expiry : 0}};
}

} // namespace

Json verdictJson(Verdict const& verdict, Stage stage) {
    return {{"action", actionText(verdict.action, verdict.reason)},
            {"reason", reasonText(verdict.reason)},
            {"seconds_left", verdict.secondsLeft},
            {"stage", stageText(stage)}};
}

Json asJson(Explanation const& all, Message const& message) {
    return {
        {"verdict", verdictJson(all.verdict, all.stage)},
        {"client",
         {{"address", message.client.asString()},
          {"name", textOrNull(message.clientName.asString())},
          {"user", textOrNull(std::string(message.authenticatedUser))},
          {"network", all.network.asString()}}},
        {"sender", all.sender.asString()},
        {"recipient", textOrNull(all.recipient.address())},
        {"endpoint", endpointJson(all)},
        {"rate", rateJson(all)},
        {"reputation", reputationJson(all)},
        {"rules", {{"count", all.rules}, {"match", all.rule ? Json(*all.rule) : Json()}}},
        {"exemption", {{"possible", all.canEarnExemption}, {"until", all.exemptUntil}, {"after", all.autoExemptAfter}}},
        {"tuple", tupleJson(all.tuple)}};
}

} // namespace Vellum::Daemon
