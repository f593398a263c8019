#include "tools/vellumctl/ExplanationText.h"

#include "foundation/Escape.h"
#include "tools/vellumctl/Bar.h"
#include "tools/vellumctl/TimeText.h"

#include <algorithm>

namespace Vellum::Tools {
namespace {

constexpr std::size_t labelColumns = 13;
constexpr std::size_t barColumns = 30;

std::string text(Json const& json) {
    return json.is_string() ? escapeForLog(json.get<std::string>()) : std::string();
}

std::int64_t whole(Json const& json) {
    return json.is_number_integer() ? json.get<std::int64_t>() : 0;
}

std::string line(std::string const& label, std::string const& value) {
    return label + std::string(labelColumns - std::min(labelColumns, label.size()), ' ') + value + '\n';
}

// What a verdict rests on that does not know the whole message; empty for one that does.
std::string restText(std::string const& stage) {
    return stage == "sender"    ? "client and sender; no recipient is given"
           : stage == "connect" ? "the client; no sender is given"
                                : "";
}

std::string verdictText(Json const& verdict) {
    std::int64_t const left = whole(verdict.at("seconds_left"));
    std::string const rest = restText(text(verdict.at("stage")));
    if (!rest.empty() && text(verdict.at("reason")) == "incomplete") {
        return "none yet: nothing is held against " + rest;
    }
    return text(verdict.at("action")) + " (" + text(verdict.at("reason")) + ")" +
           (left > 0 ? ", " + durationText(left) + " left" : "") +
           (rest.empty() ? "" : ", by what is held against " + rest);
}

std::string messageText(Json const& all) {
    Json const& client = all.at("client");
    std::string const name = text(client.at("name"));
    std::string const user = text(client.at("user"));
    std::string const sender = text(all.at("sender"));
    std::string const recipient = text(all.at("recipient"));
    return text(client.at("address")) + (name.empty() ? "" : " (" + name + ")") +
           (user.empty() ? "" : ", logged in as " + user) + (sender.empty() ? "" : ", from " + sender) +
           (recipient.empty() ? "" : " to " + recipient);
}

std::string endpointText(Json const& endpoint, std::int64_t now) {
    if (endpoint.is_null()) {
        return "subscribers are not looked up";
    }
    std::string const subscriber = text(endpoint.at("subscriber"));
    if (subscriber.empty()) {
        return "no subscriber, or not known yet";
    }
    std::string all = subscriber + ", score " + std::to_string(whole(endpoint.at("score")));
    if (std::int64_t const threshold = whole(endpoint.at("block_score")); threshold != 0) {
        all += " (blacklisted from " + std::to_string(threshold) + " on)";
    }
    if (endpoint.at("exempt").get<bool>()) {
        all += ", on the exempt list";
    }
    if (endpoint.at("blacklisted").get<bool>()) {
        all += ", on the blacklist";
    }
    if (std::int64_t const until = whole(endpoint.at("blacklisted_until")); until >= now && until != 0) {
        all += ", blacklisted until " + timeText(until, now);
    }
    return all;
}

// "12 of 500 messages, 14 recipients": the counters that are not 0 or have a limit.
std::string totalsText(Json const& totals, Json const& limits) {
    std::string all;
    for (char const* counter : {"messages", "recipients", "invalid_recipients", "spam", "infected"}) {
        std::int64_t const total = whole(totals.at(counter));
        std::int64_t const limit = whole(limits.at(counter));
        if (total == 0 && limit == 0) {
            continue;
        }
        std::string name = counter;
        std::replace(name.begin(), name.end(), '_', ' ');
        all += (all.empty() ? "" : ", ") + std::to_string(total) + (limit == 0 ? "" : " of " + std::to_string(limit)) +
               ' ' + name;
    }
    return all.empty() ? "nothing" : all;
}

std::string rateText(Json const& rate, std::int64_t now) {
    std::string const sender = text(rate.at("sender"));
    if (sender.empty()) {
        return "nobody is held to account (--user says who has logged in)";
    }
    std::string all = sender + " in half an hour: " + totalsText(rate.at("totals"), rate.at("limits"));
    if (Json const& block = rate.at("block"); !block.is_null()) {
        all += "; blocked for " + text(block.at("counter")) + " until " + timeText(whole(block.at("until")), now);
    }
    return all;
}

std::string thresholdText(Json const& reputation) {
    std::int64_t const defers = whole(reputation.at("defer_score"));
    std::int64_t const rejects = whole(reputation.at("reject_score"));
    std::string all = defers == 0 ? "" : "deferred from " + std::to_string(defers) + " on";
    if (rejects != 0) {
        all += (all.empty() ? "" : ", ") + ("rejected from " + std::to_string(rejects) + " on");
    }
    return all.empty() ? "no threshold" : all;
}

std::string hourText(Json const& hour, std::int64_t most) {
    std::int64_t const messages = whole(hour.at("messages"));
    return localTime(whole(hour.at("start"))) + "  score " + std::to_string(whole(hour.at("score"))) + ", " +
           std::to_string(messages) + " messages, " + std::to_string(whole(hour.at("spam"))) + " spam, " +
           std::to_string(whole(hour.at("infected"))) + " infected, " +
           std::to_string(whole(hour.at("invalid_recipients"))) + " of " +
           std::to_string(whole(hour.at("recipients"))) + " recipients invalid  " +
           bar(static_cast<std::uint64_t>(messages), static_cast<std::uint64_t>(most), barColumns);
}

std::string reputationLines(Json const& reputation) {
    if (!reputation.at("known").get<bool>()) {
        return line("reputation", "nothing is known of this address (" + thresholdText(reputation) + ")");
    }
    std::string all = line("reputation", "score " + std::to_string(whole(reputation.at("score"))) + " (" +
                                             thresholdText(reputation) + ")");
    std::int64_t most = 0;
    for (Json const& hour : reputation.at("hours")) {
        most = std::max(most, whole(hour.at("messages")));
    }
    for (Json const& hour : reputation.at("hours")) {
        all += line("", hourText(hour, most));
    }
    return all;
}

std::string rulesText(Json const& rules) {
    std::string const tried = std::to_string(whole(rules.at("count"))) + " tried";
    return rules.at("match").is_null() ? tried + ", none matches"
                                       : "rule " + std::to_string(whole(rules.at("match"))) + " matches";
}

std::string exemptionText(Json const& all, std::int64_t now) {
    Json const& exemption = all.at("exemption");
    if (!exemption.at("possible").get<bool>()) {
        return "not possible";
    }
    std::string const network = text(all.at("client").at("network"));
    std::int64_t const until = whole(exemption.at("until"));
    return until != 0 ? network + " and the sender's domain are exempt until " + timeText(until, now)
                      : "none for " + network + " and the sender's domain; after " +
                            std::to_string(whole(exemption.at("after"))) + " tuples have passed";
}

std::string tupleText(Json const& tuple, std::int64_t now) {
    std::string const situation = text(tuple.at("situation"));
    if (situation == "new") {
        return "never seen, or forgotten";
    }
    if (situation == "expired") {
        return "seen, but expired: it would wait again";
    }
    return situation + ", first seen " + timeText(whole(tuple.at("first_seen")), now) + ", may pass from " +
           timeText(whole(tuple.at("pass_time")), now) + " on, " +
           (situation == "passes" ? "would live until " : "lives until ") + timeText(whole(tuple.at("expiry")), now);
}

} // namespace

std::string explanationText(Json const& all, std::int64_t now) {
    bool const whole = !all.at("recipient").is_null();
    return line("message", messageText(all)) + line("verdict", verdictText(all.at("verdict"))) +
           line("endpoint", endpointText(all.at("endpoint"), now)) + line("sender", rateText(all.at("rate"), now)) +
           reputationLines(all.at("reputation")) + line("exempt rules", rulesText(all.at("rules"))) +
           line("exemption", exemptionText(all, now)) +
           (whole ? line("tuple", tupleText(all.at("tuple"), now)) : std::string());
}

} // namespace Vellum::Tools
