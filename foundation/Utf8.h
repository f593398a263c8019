// UTF-8 read one character at a time, for text that may hold anything.
#pragma once

#include <cstdint>
#include <string_view>

namespace Vellum::Utf8 {

// The character at the front of a text.
struct Character {
    std::uint32_t codePoint; // meaningful when length is not 0
    std::size_t length;      // bytes it takes, 1 to 4; 0 when the front of the text is not valid UTF-8
};

// Decodes the front of `text`, which must not be empty. Overlong forms, surrogates and anything above U+10FFFF are
// invalid, as RFC 3629 has it.
Character decode(std::string_view text);

} // namespace Vellum::Utf8
