#include "tools/vellumctl/JsonText.h"

#include "foundation/Utf8.h"

#include <cstdint>

namespace Vellum::Tools {
namespace {

constexpr char digits[] = "0123456789abcdef";

void appendHex(std::string& out, std::uint8_t byte) {
    out += digits[byte >> 4];
    out += digits[byte & 0xf];
}

// A character below U+0100.
void appendEscape(std::string& out, std::uint8_t character) {
    out += "\\u00";
    appendHex(out, character);
}

bool isPlain(char c) {
    return c >= 0x20 && c < 0x7f && c != '"' && c != '\\';
}

} // namespace

bool appendJsonString(std::string& out, std::string_view text) {
    bool valid = true;
    out += '"';
    while (!text.empty()) {
        std::size_t plain = 0;
        while (plain < text.size() && isPlain(text[plain])) {
            ++plain;
        }
        out.append(text.substr(0, plain));
        text.remove_prefix(plain);
        if (text.empty()) {
            break;
        }
        Utf8::Character const character = Utf8::decode(text);
        if (character.length == 0) {
            valid = false;
            appendEscape(out, static_cast<std::uint8_t>(text.front()));
            text.remove_prefix(1);
            continue;
        }
        if (text.front() == '"' || text.front() == '\\') {
            out += '\\';
            out += text.front();
        } else if (character.codePoint < 0xa0) {
            appendEscape(out, static_cast<std::uint8_t>(character.codePoint));
        } else {
            out.append(text.substr(0, character.length));
        }
        text.remove_prefix(character.length);
    }
    out += '"';
    return valid;
}

void appendJsonHex(std::string& out, std::string_view bytes) {
    out += '"';
    for (char const byte : bytes) {
        appendHex(out, static_cast<std::uint8_t>(byte));
    }
    out += '"';
}

} // namespace Vellum::Tools
