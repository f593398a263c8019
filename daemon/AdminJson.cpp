#include "daemon/AdminJson.h"

#include <algorithm>
#include <unistd.h>

namespace Vellum::Daemon {
namespace {

Json asJson(DaemonStatus::DatabaseState const& state) {
    return {{"reachable", state.reachable ? Json(*state.reachable) : Json()},
            {"as_of", state.asOf},
            {"problem", state.problem}};
}

Json asJson(DaemonStatus::DecisionCount const& decision) {
    return {{"action", decision.action}, {"reason", decision.reason}, {"count", decision.count}};
}

// By action and reason, in the order in which they are met first.
std::vector<DaemonStatus::DecisionCount> sumOf(std::vector<DaemonStatus::FrontDecisions> const& fronts) {
    std::vector<DaemonStatus::DecisionCount> sums;
    for (DaemonStatus::FrontDecisions const& front : fronts) {
        for (DaemonStatus::DecisionCount const& decision : front.decisions) {
            auto const found = std::find_if(sums.begin(), sums.end(), [&](auto const& sum) {
                return sum.action == decision.action && sum.reason == decision.reason;
            });
            if (found == sums.end()) {
                sums.push_back(decision);
            } else {
                found->count += decision.count;
            }
        }
    }
    return sums;
}

// What the backups of all families tell.
Json common(Database::BackupReport const& report) {
    return {{"accepted", report.accepted}, {"started", report.startedAt}, {"milliseconds", report.milliseconds},
            {"left_out", report.leftOut},  {"bytes", report.bytes},       {"problem", report.problem}};
}

Json counts(std::uint64_t tuples, std::uint64_t exemptions) {
    return {{"tuples", tuples}, {"exemptions", exemptions}};
}

} // namespace

Json asJson(Database::LoadReport const& load) {
    return {{"attempted", load.attempted}, {"loaded", load.loaded}, {"rows", load.rows}, {"problem", load.problem}};
}

Json asJson(CacheFill const& fill, Database::LoadReport const& load) {
    return {{"size", fill.size}, {"capacity", fill.capacity}, {"load", asJson(load)}};
}

Json asJson(GreyList::BackupReport const& report) {
    Json json = common(report);
    json["tuples"] = report.tuples;
    json["exemptions"] = report.exemptions;
    return json;
}

Json asJson(Reputation::BackupReport const& report) {
    Json json = common(report);
    json["records"] = report.records;
    json["addresses"] = report.addresses;
    return json;
}

Json asJson(MMSReputation::BackupReport const& report) {
    Json json = common(report);
    json["slices"] = report.records;
    json["subscribers"] = report.subscribers;
    return json;
}

Json asJson(DatabaseDaemon::ScriptOutcome::Run const& run) {
    return {{"script", run.number}, {"accepted", run.acceptedAt}};
}

Json asJson(DatabaseDaemon::ScriptOutcome::Refusal const& refusal) {
    return {{"script", refusal.number}, {"time", refusal.time}, {"reason", refusal.reason}};
}

Json asJson(DaemonStatus const& status, long now) {
    Json decisions = Json::array();
    for (DaemonStatus::DecisionCount const& decision : sumOf(status.fronts)) {
        decisions.push_back(asJson(decision));
    }
    Json fronts = Json::array();
    for (DaemonStatus::FrontDecisions const& front : status.fronts) {
        Json ofFront = Json::array();
        for (DaemonStatus::DecisionCount const& decision : front.decisions) {
            ofFront.push_back(asJson(decision));
        }
        fronts.push_back({{"front", front.front}, {"decisions", ofFront}});
    }
    return {{"version", status.version},
            {"pid", ::getpid()},
            {"started", status.startedAt},
            {"uptime_seconds", now - status.startedAt},
            {"settings", status.settingsPath},
            {"policy_listeners", status.policyListeners},
            {"database", asJson(status.database)},
            {"active", status.active ? Json(*status.active) : Json()},
            {"decisions", decisions},
            {"fronts", fronts}};
}

Json asJson(std::string const& path, RestorePreview const& preview) {
    Json json = {{"path", path},
                 {"script",
                  {{"bytes", preview.bytes},
                   {"modified", preview.modified},
                   {"tuples", preview.scriptTuples},
                   {"exemptions", preview.scriptExemptions},
                   {"newest", preview.newest},
                   {"complete", preview.complete}}},
                 {"tables", counts(preview.tableTuples, preview.tableExemptions)},
                 {"caches", counts(preview.cachedTuples, preview.cachedExemptions)}};
    if (preview.ofReputation) {
        json["script"]["reputations"] = preview.scriptReputations;
        json["tables"]["reputations"] = preview.tableReputations;
        json["caches"]["addresses"] = preview.cachedAddresses;
    }
    if (preview.ofEndpoints) {
        json["script"]["slices"] = preview.scriptSlices;
        json["tables"]["slices"] = preview.tableSlices;
        json["caches"]["subscribers"] = preview.cachedSubscribers;
    }
    return json;
}

Json asJson(std::string const& path, RestoreOutcome const& outcome) {
    Json json = {{"path", path},
                 {"restored", true},
                 {"loaded", counts(outcome.tuples, outcome.exemptions)},
                 {"milliseconds", outcome.milliseconds}};
    if (outcome.ofReputation) {
        json["loaded"]["reputations"] = outcome.reputations;
    }
    if (outcome.ofEndpoints) {
        json["loaded"]["slices"] = outcome.slices;
    }
    if (!outcome.loadProblem.empty()) {
        json["error"] = "the tables were restored, but could not be loaded: " + outcome.loadProblem;
    }
    return json;
}

Json errorJson(std::string_view text) {
    return {{"error", text}};
}

Json parseRequest(std::string_view payload) {
    if (payload.empty()) {
        return Json::object();
    }
    Json request;
    try {
        request = Json::parse(payload);
    } catch (Json::exception const& failed) {
        throw AdminRefusal(std::string("the request is not JSON: ") + failed.what());
    }
    if (!request.is_object()) {
        throw AdminRefusal(std::string("the request is JSON, but no object: ") + request.type_name());
    }
    return request;
}

std::string requiredText(Json const& request, char const* key) {
    auto const found = request.find(key);
    if (found == request.end() || !found->is_string()) {
        throw AdminRefusal(std::string("the request needs \"") + key + "\", a text");
    }
    return found->get<std::string>();
}

std::string optionalText(Json const& request, char const* key) {
    return request.contains(key) ? requiredText(request, key) : std::string();
}

bool optionalFlag(Json const& request, char const* key) {
    auto const found = request.find(key);
    if (found == request.end()) {
        return false;
    }
    if (!found->is_boolean()) {
        throw AdminRefusal(std::string("\"") + key + "\" must be true or false");
    }
    return found->get<bool>();
}

std::string payloadOf(Json const& json) {
    return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

} // namespace Vellum::Daemon
