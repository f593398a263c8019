#include "daemon/LogValue.h"

#include "foundation/Escape.h"

#include <algorithm>

namespace Vellum::Daemon {
namespace {

bool isBare(char c) {
    return c > ' ' && c < 0x7f && c != ',' && c != '"' && c != '\\';
}

// Escapes control characters and invalid UTF-8 in pieces between quotes and backslashes, which are escaped here: what
// escapeControls() adds must not be escaped again.
void appendQuoted(std::string& out, std::string_view value) {
    out += '"';
    for (;;) {
        std::size_t const special = value.find_first_of("\"\\");
        out += escapeControls(value.substr(0, special));
        if (special == std::string_view::npos) {
            break;
        }
        out += '\\';
        out += value[special];
        value.remove_prefix(special + 1);
    }
    out += '"';
}

} // namespace

void appendLogValue(std::string& out, std::string_view value) {
    if (!value.empty() && std::all_of(value.begin(), value.end(), [](char c) { return isBare(c); })) {
        out += value;
    } else {
        appendQuoted(out, value);
    }
}

} // namespace Vellum::Daemon
