// How the last load of a table, or of tables that are loaded together, went.
//
// A cache that could not be loaded must not be backed up over its tables: the host asks for this before it allows a
// backup. A family keeps its own in a Latest.
#pragma once

#include <cstdint>
#include <string>

namespace Vellum::Database {

struct LoadReport {
    bool attempted = false;
    bool loaded = false;    // the last attempt succeeded
    std::uint64_t rows = 0; // of the last successful load
    std::string problem;    // of the last attempt, when it failed
};

} // namespace Vellum::Database
