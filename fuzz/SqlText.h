// A reader of SQL texts of the tests' own, to compare what is written and split with.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Vellum::Fuzz {

// The value of a string literal '...' as the server reads it in its default SQL mode; nothing when the text is not
// exactly one.
std::optional<std::string> sqlLiteral(std::string_view text);

// The rows behind VALUES in an INSERT of a backup script, each the text of its values: literals without quotes, numbers
// as they stand. Throws Violation when the text is none.
std::vector<std::vector<std::string>> sqlRows(std::string_view statement);

// The rows that a whole backup script puts into a table. Throws Violation when the script is none that runs.
std::vector<std::vector<std::string>> rowsOfScript(std::string const& script, std::string_view table);

} // namespace Vellum::Fuzz
