#include "foundation/Escape.h"

#include "foundation/Utf8.h"

#include <cstdint>
#include <cstring>

namespace Vellum {
namespace {

void appendHex(std::string& out, char byte) {
    constexpr char digits[] = "0123456789abcdef";
    auto const value = static_cast<std::uint8_t>(byte);
    out += "\\x";
    out += digits[value >> 4];
    out += digits[value & 0xf];
}

void appendEscaped(std::string& out, std::string_view bytes) {
    for (char const byte : bytes) {
        switch (byte) {
        case '\n':
            out += "\\n";
            break;
        case '\r':
            out += "\\r";
            break;
        case '\t':
            out += "\\t";
            break;
        default:
            appendHex(out, byte);
        }
    }
}

bool isHarmful(std::uint32_t codePoint) {
    constexpr std::uint32_t lineSeparator = 0x2028;
    constexpr std::uint32_t paragraphSeparator = 0x2029;
    return codePoint < 0x20 || (codePoint >= 0x7f && codePoint <= 0x9f) || codePoint == lineSeparator ||
           codePoint == paragraphSeparator;
}

bool looksLikeEscape(std::string_view text) {
    return text.size() > 1 && text[0] == '\\' && std::strchr("xnrt", text[1]) != nullptr && text[1] != '\0';
}

std::string escape(std::string_view text, bool backslashesToo) {
    std::string out;
    out.reserve(text.size() + 16);
    while (!text.empty()) {
        Utf8::Character const character = Utf8::decode(text);
        std::size_t const length = character.length == 0 ? 1 : character.length;
        std::string_view const bytes = text.substr(0, length);
        if (character.length == 0 || isHarmful(character.codePoint) || (backslashesToo && looksLikeEscape(text))) {
            appendEscaped(out, bytes);
        } else {
            out += bytes;
        }
        text.remove_prefix(length);
    }
    return out;
}

} // namespace

bool isPlainText(std::string_view text) {
    // Eight bytes at a time: a line is logged for every decision. Adding 1 carries 0x7f into the high bit, and
    // subtracting 0x20 borrows for anything below a blank.
    constexpr std::uint64_t highBits = 0x8080808080808080U;
    constexpr std::uint64_t ones = 0x0101010101010101U;
    std::size_t i = 0;
    for (; i + 8 <= text.size(); i += 8) {
        std::uint64_t word = 0;
        std::memcpy(&word, text.data() + i, 8);
        if (((word | (word + ones) | (word - 0x20 * ones)) & highBits) != 0) {
            return false;
        }
    }
    for (; i < text.size(); ++i) {
        auto const byte = static_cast<std::uint8_t>(text[i]);
        if (byte < 0x20 || byte >= 0x7f) {
            return false;
        }
    }
    return true;
}

std::string escapeControls(std::string_view text) {
    return isPlainText(text) ? std::string(text) : escape(text, false);
}

std::string escapeForLog(std::string_view text) {
    bool const untouched = isPlainText(text) && text.find('\\') == std::string_view::npos;
    return untouched ? std::string(text) : escape(text, true);
}

} // namespace Vellum
