// What may be shown on a terminal.
#pragma once

#include "foundation/Escape.h"

#include <string>
#include <string_view>

namespace Vellum::Fuzz {

// Whether a text of any number of lines holds no control character but its line breaks, and is UTF-8. The line and
// paragraph separators of Unicode, which have no place in a log, are nothing special here.
inline bool isTerminalText(std::string_view text) {
    std::string line;
    while (!text.empty()) {
        std::size_t const separator = text.starts_with("\xe2\x80\xa8") || text.starts_with("\xe2\x80\xa9") ? 3 : 0;
        bool const lineBreak = text.front() == '\n';
        if (separator == 0 && !lineBreak) {
            line += text.front();
        }
        text.remove_prefix(separator == 0 ? 1 : separator);
    }
    return escapeControls(line) == line;
}

} // namespace Vellum::Fuzz
