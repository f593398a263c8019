#include "foundation/Escape.h"

#include <gtest/gtest.h>
#include <random>

namespace Vellum {
namespace {

TEST(Escape, PrintableTextIsUntouched) {
    std::string printable;
    for (char c = 0x20; c < 0x7f; ++c) {
        printable += c;
    }
    EXPECT_TRUE(isPlainText(printable));
    EXPECT_EQ(escapeControls(printable), printable);
    EXPECT_EQ(escapeForLog(printable), printable);
    EXPECT_EQ(escapeControls(""), "");
    EXPECT_EQ(escapeControls("\xc3\xbc\xe2\x82\xac\xf0\x9f\x93\xa7"), "\xc3\xbc\xe2\x82\xac\xf0\x9f\x93\xa7");
}

TEST(Escape, PlainTextIsSeenAtEveryPlaceOfAWord) {
    for (int c = 0; c < 0x100; ++c) {
        for (std::size_t at = 0; at < 19; ++at) {
            std::string text(19, 'x');
            text[at] = static_cast<char>(c);
            ASSERT_EQ(isPlainText(text), c >= 0x20 && c < 0x7f) << c << " at " << at;
        }
    }
}

TEST(Escape, ControlCharactersBecomeVisible) {
    EXPECT_EQ(escapeControls(std::string("a\0b", 3)), "a\\x00b");
    EXPECT_EQ(escapeControls("\x01\x1f\x7f"), "\\x01\\x1f\\x7f");
    EXPECT_EQ(escapeControls("a\nb\rc\td"), "a\\nb\\rc\\td");
    EXPECT_EQ(escapeControls("\x1b[2J"), "\\x1b[2J");
}

TEST(Escape, ControlCharactersInUtf8BecomeVisible) {
    EXPECT_EQ(escapeControls("\xc2\x80\xc2\x85\xc2\x9f"), "\\xc2\\x80\\xc2\\x85\\xc2\\x9f");
    EXPECT_EQ(escapeControls("\xc2\xa0"), "\xc2\xa0");
    EXPECT_EQ(escapeControls("\xe2\x80\xa7"), "\xe2\x80\xa7");
    EXPECT_EQ(escapeControls("\xe2\x80\xa8\xe2\x80\xa9"), "\\xe2\\x80\\xa8\\xe2\\x80\\xa9") << "line separators";
    EXPECT_EQ(escapeControls("\xe2\x80\xaa"), "\xe2\x80\xaa");
}

TEST(Escape, InvalidUtf8BecomesVisibleByteByByte) {
    EXPECT_EQ(escapeControls("\x80"), "\\x80");
    EXPECT_EQ(escapeControls("a\xff"
                             "b"),
              "a\\xffb");
    EXPECT_EQ(escapeControls("\xc3"), "\\xc3");
    EXPECT_EQ(escapeControls("\xc3("), "\\xc3(");
    EXPECT_EQ(escapeControls("\xe2\x82"), "\\xe2\\x82");
    EXPECT_EQ(escapeControls("\xc3\xc3\xbc"), "\\xc3\xc3\xbc");
}

TEST(Escape, BackslashBeforeAnEscapeLetterIsMarkedInValues) {
    EXPECT_EQ(escapeForLog("\\x01 \\n \\r \\t"), "\\x5cx01 \\x5cn \\x5cr \\x5ct");
    EXPECT_EQ(escapeForLog("\\\\x"), "\\\\x5cx");
    EXPECT_EQ(escapeForLog("a\\'b\\"), "a\\'b\\");
    EXPECT_EQ(escapeForLog(std::string("\\\0", 2)), "\\\\x00");
    EXPECT_EQ(escapeControls("\\x01 \\n"), "\\x01 \\n");
}

std::string readBack(std::string const& escaped) {
    std::string text;
    for (std::size_t i = 0; i < escaped.size(); ++i) {
        char const next = escaped[i] == '\\' && i + 1 < escaped.size() ? escaped[i + 1] : '\0';
        if (next == 'x') {
            text += static_cast<char>(std::stoi(escaped.substr(i + 2, 2), nullptr, 16));
            i += 3;
        } else if (next == 'n' || next == 'r' || next == 't') {
            text += next == 'n' ? '\n' : next == 'r' ? '\r' : '\t';
            ++i;
        } else {
            text += escaped[i];
        }
    }
    return text;
}

TEST(Escape, RandomValuesReadBackAndEscapingTwiceIsHarmless) {
    unsigned int const seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    std::string const alphabet = std::string("\\\\xnrt0a\x01\n\r\t\x7f\xc2\x85\xc3\xbc\xe2\x80\xa8\xff") + '\0';
    for (int run = 0; run < 50000; ++run) {
        std::string text;
        for (std::size_t length = random() % 12; length > 0; --length) {
            text += alphabet[random() % alphabet.size()];
        }
        ASSERT_EQ(readBack(escapeForLog(text)), text);
        std::string const once = escapeControls(text);
        ASSERT_EQ(escapeControls(once), once);
        for (char const c : once + escapeForLog(text)) {
            ASSERT_FALSE(static_cast<unsigned char>(c) < 0x20 || c == 0x7f);
        }
    }
}

} // namespace
} // namespace Vellum
