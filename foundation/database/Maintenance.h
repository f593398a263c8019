// Statements that make, change or drop a family's tables.
#pragma once

#include "foundation/database/Connection.h"

#include <string>

namespace Vellum::Database {

// Runs `text`. A failure is thrown as an Exception named after `operation`, with the source and line that log readers
// are promised and the database's own as its cause.
void maintain(Connection& connection, std::string const& text, char const* operation, char const* source,
              unsigned int line);

} // namespace Vellum::Database
