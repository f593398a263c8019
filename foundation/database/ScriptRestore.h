// Running a saved script against the database.
#pragma once

#include "foundation/database/QueryFile.h"

#include <cstdint>
#include <string>

namespace Vellum::Database {

// Runs the script, all or nothing, and tells how far it is. Throws DatabaseException.
void runScript(Connection& connection, ScriptSource const& script, QueryFile::Progress const& progress = nullptr);

// The records that log readers are promised of a script that fails: source, line, the exception's text, the path.
struct RestoreRecords {
    char const* source;
    std::uint32_t missingCode; // there is no such file
    int missingLine;
    std::uint32_t failedCode; // anything else
    int failedLine;
};
// The same for those who must not throw: a failure is logged.
void runScriptOrLog(Connection& connection, std::string const& path, RestoreRecords const& records);

} // namespace Vellum::Database
