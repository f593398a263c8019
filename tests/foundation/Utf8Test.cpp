#include "foundation/Utf8.h"

#include <gtest/gtest.h>
#include <string>

namespace Vellum {
namespace {

TEST(Utf8, BoundariesOfEachLength) {
    struct Case {
        char const* text;
        std::uint32_t codePoint;
        std::size_t length;
    };
    Case const cases[] = {{"\x01", 0x1, 1},
                          {"\x7f", 0x7f, 1},
                          {"\xc2\x80", 0x80, 2},
                          {"\xdf\xbf", 0x7ff, 2},
                          {"\xe0\xa0\x80", 0x800, 3},
                          {"\xed\x9f\xbf", 0xd7ff, 3},
                          {"\xee\x80\x80", 0xe000, 3},
                          {"\xef\xbf\xbf", 0xffff, 3},
                          {"\xf0\x90\x80\x80", 0x10000, 4},
                          {"\xf4\x8f\xbf\xbf", 0x10ffff, 4}};
    for (Case const& c : cases) {
        Utf8::Character const character = Utf8::decode(std::string(c.text) + "tail");
        EXPECT_EQ(character.codePoint, c.codePoint);
        EXPECT_EQ(character.length, c.length) << c.codePoint;
    }
    EXPECT_EQ(Utf8::decode(std::string_view("\0", 1)).length, 1U);
}

TEST(Utf8, InvalidTextIsRefused) {
    for (char const* text : {"\x80", "\xbf", "\xc0\x80", "\xc1\xbf", "\xe0\x9f\xbf", "\xf0\x8f\xbf\xbf", "\xed\xa0\x80",
                             "\xed\xbf\xbf", "\xf4\x90\x80\x80", "\xf5\x80\x80\x80", "\xff", "\xc3", "\xc3x",
                             "\xe2\x82", "\xe2\x82x", "\xf0\x9f\x93", "\xf0\x9f\x93x"}) {
        EXPECT_EQ(Utf8::decode(text).length, 0U) << static_cast<int>(static_cast<unsigned char>(text[0]));
    }
}

} // namespace
} // namespace Vellum
