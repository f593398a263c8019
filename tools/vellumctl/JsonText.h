// JSON strings of bytes that may be anything.
#pragma once

#include <string>
#include <string_view>

namespace Vellum::Tools {

// Appends `text` as a JSON string, quotes included. Control characters (U+007F to U+009F among them) are escaped, so
// that it can be shown on a terminal. A byte that is not UTF-8 is written as if it were Latin-1: 0xff as \u00ff.
// Answers false when there was such a byte; the string then does not tell the bytes without doubt.
bool appendJsonString(std::string& out, std::string_view text);

// Appends the bytes as a JSON string of hex digits.
void appendJsonHex(std::string& out, std::string_view bytes);

} // namespace Vellum::Tools
