// Values as the rows of a backup script have them.
#pragma once

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <limits>
#include <string>
#include <string_view>

namespace Vellum::Database {

// The number columns are ints; what is beyond one is stored as its end.
constexpr std::int64_t clampedToInt(std::int64_t number) {
    return std::clamp<std::int64_t>(number, std::numeric_limits<std::int32_t>::min(),
                                    std::numeric_limits<std::int32_t>::max());
}

inline void appendNumber(std::string& text, std::int64_t number) {
    char digits[24];
    auto const end = std::to_chars(digits, digits + sizeof digits, number).ptr;
    text.append(digits, end);
}

// Whether a text that goes between quotes as it is would not come back as it was.
inline bool needsEscaping(std::string_view text) {
    return std::any_of(text.begin(), text.end(),
                       [](unsigned char c) { return c == '\'' || c == '"' || c == '\\' || c < 0x20 || c == 0x7f; });
}

} // namespace Vellum::Database
