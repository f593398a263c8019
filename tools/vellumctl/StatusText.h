// The daemon's answers, for people.
#pragma once

#include <nlohmann/json.hpp>

#include <cstdint>
#include <string>

namespace Vellum::Tools {

using Json = nlohmann::json;

// `now` in seconds since the epoch. Whatever an answer does not hold is left out or shown as "-"; texts are escaped for
// a terminal. Throw Json::exception when something is of another type than it should be.

// The answer to adminStatus, one fact on each line.
std::string statusText(Json const& status, std::int64_t now);
// What went wrong when the tables were loaded last; empty when nothing did.
std::string loadProblem(Json const& status);
// "12 tuples and 3 exemptions loaded".
std::string loadedText(Json const& status);
// The same of sender reputation: "120 hours loaded".
std::string reputationLoadProblem(Json const& status);
std::string reputationLoadedText(Json const& status);
// The same of endpoints: "12 slices, 3 exempt and 4 blacklisted numbers loaded".
std::string endpointLoadProblem(Json const& status);
std::string endpointLoadedText(Json const& status);
// What the answer to adminBackup says of one family's backup.
std::string backupText(Json const& report);
// The whole answer, of backups that were accepted.
std::string acceptedBackupText(Json const& answer);
// The answer to a dry run of adminRestore: what the script holds, and what would be lost.
std::string previewText(Json const& preview, std::int64_t now);
// The answer to adminRestore.
std::string restoredText(Json const& outcome);
// The answer to adminAcceptEmpty.
std::string acceptedText(Json const& answer);

} // namespace Vellum::Tools
