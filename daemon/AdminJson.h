// The JSON texts of administration requests, from the values of AdminServices.h.
#pragma once

#include "daemon/AdminServices.h"
#include "greylist/LoadReport.h"
#include "reputation/LoadReport.h"

#include <nlohmann/json.hpp>

#include <cstdint>
#include <string>
#include <string_view>

namespace Vellum::Daemon {

using Json = nlohmann::json;

// How full a cache is.
struct CacheFill {
    std::uint32_t size = 0;
    std::uint32_t capacity = 0;
};

Json asJson(Database::LoadReport const& load);
Json asJson(CacheFill const& fill, Database::LoadReport const& load);
Json asJson(GreyList::BackupReport const& report);
Json asJson(Reputation::BackupReport const& report);
Json asJson(MMSReputation::BackupReport const& report);
Json asJson(DatabaseDaemon::ScriptOutcome::Run const& run);
Json asJson(DatabaseDaemon::ScriptOutcome::Refusal const& refusal);
// Of a gate, a family's last backup, and what became of its scripts.
template <class Report>
Json asJson(BackupGate const& gate, Report const& last, DatabaseDaemon::ScriptOutcome const& outcome) {
    return {{"allowed", gate.open},
            {"reason", gate.reason},
            {"last", last.attempted ? asJson(last) : Json()},
            {"ran", outcome.ran ? asJson(*outcome.ran) : Json()},
            {"refused", outcome.refused ? asJson(*outcome.refused) : Json()}};
}
Json asJson(DaemonStatus const& status, long now); // all but "backup" and the families
Json asJson(std::string const& path, RestorePreview const& preview);
Json asJson(std::string const& path, RestoreOutcome const& outcome);
Json errorJson(std::string_view text);

// The object in a request's payload. Throws AdminRefusal when it is no JSON, or no object.
Json parseRequest(std::string_view payload);
// A text that must be there, and a flag and a text that may be. Throw AdminRefusal naming the key.
std::string requiredText(Json const& request, char const* key);
bool optionalFlag(Json const& request, char const* key);
std::string optionalText(Json const& request, char const* key);

// As it travels: bytes that are not UTF-8, in a file name for example, are replaced.
std::string payloadOf(Json const& json);

} // namespace Vellum::Daemon
