#include "tools/vellumctl/JsonText.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <string>

namespace Vellum::Tools {
namespace {

std::string written(std::string const& text, bool* valid = nullptr) {
    std::string out;
    bool const isUtf8 = appendJsonString(out, text);
    if (valid != nullptr) {
        *valid = isUtf8;
    }
    return out;
}

TEST(JsonText, PlainTextStaysAsItIs) {
    EXPECT_EQ(written(""), "\"\"");
    EXPECT_EQ(written("a@example.org"), "\"a@example.org\"");
    EXPECT_EQ(written("\xc3\xa9@example.org"), "\"\xc3\xa9@example.org\"");
}

TEST(JsonText, QuotesBackslashesAndControlCharactersAreEscaped) {
    EXPECT_EQ(written("\"a\\b\"@x"), R"("\"a\\b\"@x")");
    EXPECT_EQ(written(std::string("\0\x01\n\x7f", 4)), R"("\u0000\u0001\u000a\u007f")");
    EXPECT_EQ(written("\xc2\x9b"), R"("\u009b")") << "a terminal takes it for the start of a command";
}

TEST(JsonText, BytesThatAreNotUtf8AreWrittenAsLatin1) {
    bool valid = true;
    EXPECT_EQ(written("a\xff\xc3@x", &valid), R"("a\u00ff\u00c3@x")");
    EXPECT_FALSE(valid);
    EXPECT_EQ(written("\xed\xa0\x80", &valid), R"("\u00ed\u00a0\u0080")") << "half of a surrogate pair";
    EXPECT_FALSE(valid);
    written("\xf0\x9f\x93\xac", &valid);
    EXPECT_TRUE(valid);
}

TEST(JsonText, EveryByteBesideEveryOtherIsReadBackByAParser) {
    for (unsigned int first = 0; first < 256; ++first) {
        for (unsigned int second = 0; second < 256; ++second) {
            std::string const text{static_cast<char>(first), static_cast<char>(second)};
            bool valid = false;
            auto const parsed = nlohmann::json::parse(written(text, &valid), nullptr, false);
            ASSERT_TRUE(parsed.is_string()) << first << " " << second;
            if (valid) {
                ASSERT_EQ(parsed.get<std::string>(), text) << first << " " << second;
            }
        }
    }
}

TEST(JsonText, HexDigitsTellEveryByte) {
    std::string out = "x";
    appendJsonHex(out, std::string("\x00\x7f\xff", 3));
    EXPECT_EQ(out, "x\"007fff\"");
}

} // namespace
} // namespace Vellum::Tools
