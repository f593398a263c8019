// A line of a tab-separated file (QueryLoadData.h) as a row of an SQL statement.
#pragma once

#include <string>
#include <string_view>

namespace Vellum::Database {

// Appends ('value','value',...) with every value escaped for SQL: the line is bytes of a file, whatever they are. A tab
// ends a value; a backslash makes the next character part of it, \t, \n, \r and \0 are those characters. Answers false
// when the line ends within such an escape; what was appended is of no use then.
bool appendTabbedRow(std::string& sql, std::string_view line);

} // namespace Vellum::Database
