// Values in the daemon's "key=value, key=value" log lines, written so that none of them can pass for another key or
// line.
//
//   example.org            as it is: printable ASCII without blank, comma, double quote and backslash
//   "two words, \"x\""     anything else: in double quotes, with a backslash before '"' and '\'; control characters
//                          \n, \r, \t or \xNN, bytes that are not UTF-8 \xNN (two lower-case hex digits)
//   ""                     an empty value
//
// So a value begins with a double quote exactly when it ends with one, and no value holds ", " outside of quotes.
#pragma once

#include <string>
#include <string_view>

namespace Vellum::Daemon {

// Appends `value`, written as above. A few nanoseconds for a value that needs no quotes.
void appendLogValue(std::string& out, std::string_view value);

} // namespace Vellum::Daemon
