// Fits tables that older versions, or other hands, have made. Works on the database selected on the connection; throws
// DatabaseException.
#pragma once

#include "foundation/database/Connection.h"

#include <string>
#include <vector>

namespace Vellum::Database {

bool hasColumn(Connection& connection, std::string const& table, std::string const& column);

// Has the server compare every text of `table` byte by byte, as the caches compare their keys. `textBytes`: what its
// text columns take. Texts keep their bytes, whatever character set they were declared to be in; one of more bytes than
// its column is an error, and nothing is changed. Appends a sentence to `changes` when there was something to do; a
// missing table is none of its business.
void compareByteWise(Connection& connection, std::string const& table, unsigned int textBytes,
                     std::vector<std::string>& changes);

} // namespace Vellum::Database
