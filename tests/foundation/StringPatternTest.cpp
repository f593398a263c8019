#include "foundation/StringPattern.h"

#include "foundation/Exception.h"

#include <gtest/gtest.h>
#include <random>

namespace Vellum {
namespace {

bool matches(std::string const& pattern, std::string const& text) {
    return StringPattern(pattern).matches(text);
}

std::string problemOf(std::string const& pattern) {
    try {
        StringPattern const accepted(pattern);
        return "accepted";
    } catch (Exception const& caught) {
        return caught.stringParameters().at(0);
    }
}

TEST(StringPattern, EmptyPatternMatchesEverything) {
    EXPECT_TRUE(StringPattern().isEmpty());
    EXPECT_TRUE(StringPattern("").isEmpty());
    EXPECT_TRUE(StringPattern().matches(""));
    EXPECT_TRUE(StringPattern().matches("anything"));
    EXPECT_EQ(StringPattern(), StringPattern(""));
}

TEST(StringPattern, TextWithoutWildcardsMatchesAsAWhole) {
    EXPECT_TRUE(matches("example.org", "example.org"));
    EXPECT_FALSE(matches("example.org", "mail.example.org"));
    EXPECT_FALSE(matches("example.org", "example.org.net"));
    EXPECT_FALSE(matches("example.org", ""));
}

TEST(StringPattern, StarIsAnyRunOfCharacters) {
    EXPECT_TRUE(matches("*.example.org", "mail.example.org"));
    EXPECT_TRUE(matches("*.example.org", ".example.org"));
    EXPECT_FALSE(matches("*.example.org", "example.org"));
    EXPECT_FALSE(matches("*.example.org", "mail.example.org.net"));
    EXPECT_TRUE(matches("a*b*c", "abc"));
    EXPECT_TRUE(matches("a*b*c", "a--b--b--c"));
    EXPECT_FALSE(matches("a*b*c", "acb"));
    EXPECT_TRUE(matches("*", ""));
    EXPECT_TRUE(matches("**", "x"));
}

TEST(StringPattern, QuestionMarkIsExactlyOneCharacter) {
    EXPECT_TRUE(matches("a?c", "abc"));
    EXPECT_FALSE(matches("a?c", "ac"));
    EXPECT_FALSE(matches("a?c", "abbc"));
    EXPECT_FALSE(matches("?", ""));
    EXPECT_TRUE(matches("??", "ab"));
}

TEST(StringPattern, LetterCaseNeverCounts) {
    EXPECT_TRUE(matches("*@EXAMPLE.org", "Some@example.ORG"));
    EXPECT_TRUE(matches("/^BOUNCE/", "bounce-1@example.org"));
}

TEST(StringPattern, EveryOtherCharacterOfAWildcardPatternIsLiteral) {
    for (int c = 1; c < 0x100; ++c) {
        if (c == '*' || c == '?') {
            continue;
        }
        std::string const text = std::string("a") + static_cast<char>(c) + "b";
        EXPECT_TRUE(matches(text, text)) << c;
        EXPECT_FALSE(matches(text, "ab")) << c;
        EXPECT_FALSE(matches(text, text + "b")) << c;
    }
    EXPECT_FALSE(matches("a.b", "axb"));
    EXPECT_FALSE(matches("[ab]", "a"));
    EXPECT_FALSE(matches("a|b", "a"));
    EXPECT_FALSE(matches("\\d", "1"));
    EXPECT_FALSE(matches("a+", "aa"));
    EXPECT_TRUE(matches("a\\*", "a\\bc")) << "a backslash escapes nothing";
    EXPECT_TRUE(matches(std::string("a\0*", 3), std::string("a\0b", 3)));
    EXPECT_FALSE(matches(std::string("a\0*", 3), "ab"));
}

TEST(StringPattern, ExpressionIsFoundAnywhere) {
    EXPECT_TRUE(matches("/bounce-\\d+@/", "x-bounce-17@example.org"));
    EXPECT_FALSE(matches("/bounce-\\d+@/", "bounce-@example.org"));
    EXPECT_TRUE(matches("/^a/", "abc"));
    EXPECT_FALSE(matches("/^b/", "abc"));
    EXPECT_TRUE(matches("/c$/", "abc"));
    EXPECT_TRUE(matches("/x|b/", "abc"));
    EXPECT_TRUE(matches("/a.c/", "a\nc")) << "the dot takes line breaks, too";
}

TEST(StringPattern, SlashInsideAnExpressionMayBeEscaped) {
    EXPECT_TRUE(matches("/a\\/b/", "xa/by"));
    EXPECT_TRUE(matches("/a/b/", "xa/by"));
    EXPECT_FALSE(matches("/a\\/b/", "a\\/b"));
}

TEST(StringPattern, TextWithOneSlashAtItsEdgeIsNoExpression) {
    EXPECT_TRUE(matches("/", "/"));
    EXPECT_FALSE(matches("/", "a/b"));
    EXPECT_TRUE(matches("/G=*/@example.org", "/G=John/S=Doe/@example.org"));
    EXPECT_TRUE(matches("*/", "a/"));
}

TEST(StringPattern, ExpressionWithoutAnythingInItIsRefused) {
    EXPECT_EQ(problemOf("//"), "\"//\" is not a pattern: the expression between the slashes is empty");
}

TEST(StringPattern, InvalidExpressionIsRefusedByName) {
    EXPECT_EQ(problemOf("/a(b/"), "\"/a(b/\" is not a pattern: missing ): a(b");
    EXPECT_EQ(problemOf("/a\\/"), "\"/a\\/\" is not a pattern: trailing \\");
    EXPECT_NE(problemOf("/[z-a]/"), "accepted");
    EXPECT_NE(problemOf("/*a/"), "accepted");
    EXPECT_NE(problemOf("/(?=a)/"), "accepted") << "no look-ahead: it could not be matched in linear time";
    EXPECT_NE(problemOf("/(a)\\1/"), "accepted") << "no back-reference, likewise";
    EXPECT_NE(problemOf("/((a{1000}){1000}){1000}/"), "accepted") << "too large";
}

TEST(StringPattern, TextsOfAnyBytesMatch) {
    EXPECT_TRUE(matches("*@example.org", "\xff\xfe\x80@example.org"));
    EXPECT_TRUE(matches("\xc3\xbc*", "\xc3\xbcx"));
    EXPECT_TRUE(matches("a??b", "a\xc3\xbc"
                                "b"))
        << "a question mark is a byte";
    EXPECT_TRUE(matches("/\\xff/", "a\xff"));
    EXPECT_TRUE(matches("a*b", "a\n\r\nb"));
    EXPECT_TRUE(matches("a?b", "a\nb"));
    EXPECT_FALSE(matches("ab", "ab\n")) << "the end is the end, not the last line break";
    EXPECT_FALSE(matches("b", "a\nb"));
    EXPECT_TRUE(matches("a*b", std::string("a\0b", 3)));
}

TEST(StringPattern, PatternsThatRunAwayElsewhereAreAnswered) {
    std::string const text(100000, 'a');
    EXPECT_FALSE(matches("/^(a+)+$/", text + 'b'));
    EXPECT_FALSE(matches("/(a|aa)*c/", text));
    EXPECT_FALSE(matches("*a*a*a*a*a*a*a*a*a*a*b", text));
    EXPECT_TRUE(matches("*a*a*a*a*a*a*a*a*a*a*", text));
}

TEST(StringPattern, EqualWhenWrittenTheSame) {
    EXPECT_EQ(StringPattern("a*"), StringPattern("a*"));
    EXPECT_FALSE(StringPattern("a*") == StringPattern("A*"));
    StringPattern const original("/x/");
    StringPattern const copy = original;
    EXPECT_EQ(copy, original);
    EXPECT_EQ(copy.asString(), "/x/");
    EXPECT_TRUE(copy.matches("axb"));
}

// The wildcards by definition, one character at a time.
bool modelMatches(std::string_view pattern, std::string_view text) {
    if (pattern.empty()) {
        return text.empty();
    }
    if (pattern.front() == '*') {
        return modelMatches(pattern.substr(1), text) || (!text.empty() && modelMatches(pattern, text.substr(1)));
    }
    return !text.empty() && (pattern.front() == '?' || pattern.front() == text.front()) &&
           modelMatches(pattern.substr(1), text.substr(1));
}

TEST(StringPattern, RandomWildcardPatternsAgreeWithTheirDefinition) {
    unsigned int const seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    auto const text = [&](std::string const& alphabet) {
        std::string out;
        for (std::size_t length = 1 + random() % 7; length > 0; --length) {
            out += alphabet[random() % alphabet.size()];
        }
        return out;
    };
    for (int run = 0; run < 3000; ++run) {
        std::string const pattern = text("ab.*?\n\\");
        StringPattern const compiled(pattern);
        for (int i = 0; i < 10; ++i) {
            std::string const candidate = text("ab.\n\\");
            ASSERT_EQ(compiled.matches(candidate), modelMatches(pattern, candidate)) << pattern << " : " << candidate;
        }
    }
}

} // namespace
} // namespace Vellum
