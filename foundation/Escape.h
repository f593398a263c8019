// Makes foreign text safe to put into a line of a log.
//
// A control character in a line could break it in two, forge a field (0x01) or drive an administrator's terminal, and
// one invalid byte makes a log reader show the whole line as binary. So these are written visibly instead:
//
//   line break \n, carriage return \r, tab \t, every other byte concerned \xNN (two lower-case hex digits)
//
// Concerned are control characters (U+0000 to U+001F, U+007F to U+009F), the Unicode line and paragraph separators,
// and bytes that are not UTF-8. All other text passes as it is.
#pragma once

#include <string>
#include <string_view>

namespace Vellum {

// Whether `text` is printable ASCII throughout, so that no escaping can be due. A few nanoseconds for a line.
bool isPlainText(std::string_view text);

// `text` with the above escaped. Applying it to its own result changes nothing.
std::string escapeControls(std::string_view text);

// escapeControls, and a backslash that could be taken for the start of an escape is written \x5c: the result can be
// read back without doubt. For values inside a line; see also Logger.h.
std::string escapeForLog(std::string_view text);

} // namespace Vellum
