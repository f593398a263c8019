// Letter case of ASCII text, whatever the locale; other bytes are left alone.
#pragma once

#include <algorithm>
#include <string_view>

namespace Vellum::Daemon {

constexpr bool isUpperAscii(char c) {
    return c >= 'A' && c <= 'Z';
}
constexpr char lowerAscii(char c) {
    return isUpperAscii(c) ? static_cast<char>(c + ('a' - 'A')) : c;
}

constexpr bool hasUpperAscii(std::string_view text) {
    return std::any_of(text.begin(), text.end(), isUpperAscii);
}

constexpr bool equalWithoutCase(std::string_view a, std::string_view b) {
    return a.size() == b.size() &&
           std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) { return lowerAscii(x) == lowerAscii(y); });
}

// Whether `text` begins with `prefix`, which is in lower case.
constexpr bool startsWithIgnoringCase(std::string_view text, std::string_view prefix) {
    return text.size() >= prefix.size() &&
           std::equal(prefix.begin(), prefix.end(), text.begin(), [](char p, char t) { return p == lowerAscii(t); });
}

} // namespace Vellum::Daemon
