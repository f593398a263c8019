#include "foundation/Utf8.h"

namespace Vellum::Utf8 {
namespace {

constexpr Character invalid{0, 0};

} // namespace

Character decode(std::string_view text) {
    auto const byte = [&](std::size_t i) {
        return static_cast<std::uint8_t>(text[i]);
    };
    std::uint8_t const first = byte(0);
    if (first < 0x80) {
        return {first, 1};
    }
    std::size_t const length = first >= 0xf0 ? 4 : first >= 0xe0 ? 3 : 2;
    if (first < 0xc2 || first > 0xf4 || text.size() < length) {
        return invalid;
    }
    std::uint32_t codePoint = first & (0x7fU >> length);
    for (std::size_t i = 1; i < length; ++i) {
        if ((byte(i) & 0xc0) != 0x80) {
            return invalid;
        }
        codePoint = codePoint << 6 | (byte(i) & 0x3fU);
    }
    constexpr std::uint32_t smallestOfLength[] = {0, 0, 0x80, 0x800, 0x10000};
    bool const surrogate = codePoint >= 0xd800 && codePoint <= 0xdfff;
    if (codePoint < smallestOfLength[length] || surrogate || codePoint > 0x10ffff) {
        return invalid;
    }
    return {codePoint, length};
}

} // namespace Vellum::Utf8
