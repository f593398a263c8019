// Fits greylist tables that older versions, or other hands, have made.
#pragma once

#include "foundation/database/Connection.h"

#include <string>
#include <vector>

namespace Vellum::GreyList {

// Works on the database selected on `connection`. Answers what was changed, a sentence each; nothing when the tables
// fit. Rows are kept: texts keep their bytes, and a tuple without an expiry gets 0, which is long over. Throws
// DatabaseException, for example when a text has more bytes than its column.
std::vector<std::string> repairTables(Database::Connection& connection);

} // namespace Vellum::GreyList
