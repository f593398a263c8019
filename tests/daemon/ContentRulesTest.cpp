#include "daemon/ContentRules.h"

#include "foundation/Exception.h"

#include <gtest/gtest.h>

namespace Vellum::Daemon {
namespace {

bool matches(std::string const& rule, std::string_view name, std::string_view value) {
    return HeaderRule::parse(rule).matches(name, value);
}

std::string problemOf(std::string const& rule) {
    try {
        HeaderRule::parse(rule);
    } catch (Exception const& refused) {
        return refused.stringParameters().empty() ? refused.asString() : refused.stringParameters().front();
    }
    return "none";
}

TEST(HeaderRule, NameIsComparedWhateverTheLetterCase) {
    EXPECT_TRUE(matches("X-Spam-Flag: YES*", "x-spam-FLAG", "YES"));
    EXPECT_FALSE(matches("X-Spam-Flag: YES*", "X-Spam-Flags", "YES"));
    EXPECT_FALSE(matches("X-Spam-Flag: YES*", "X-Spam-Fla", "YES"));
}

TEST(HeaderRule, PatternIsForTheWholeValue) {
    EXPECT_TRUE(matches("X-Spam: Yes", "X-Spam", "yes"));
    EXPECT_FALSE(matches("X-Spam: Yes", "X-Spam", "yes, really"));
    EXPECT_TRUE(matches("X-Spam: Yes*", "X-Spam", "yes, really"));
    EXPECT_FALSE(matches("X-Spam: Yes*", "X-Spam", "not yes"));
}

TEST(HeaderRule, ExpressionFindsAPart) {
    EXPECT_TRUE(matches("X-Spam-Status: /^yes, score=[1-9][0-9]/", "X-Spam-Status", "Yes, score=12.1 required=5.0"));
    EXPECT_FALSE(matches("X-Spam-Status: /^yes, score=[1-9][0-9]/", "X-Spam-Status", "Yes, score=6.1 required=5.0"));
}

TEST(HeaderRule, FoldedValueIsOneLine) {
    EXPECT_TRUE(matches("X-Spam-Status: Yes, score=7 tests=A,B", "X-Spam-Status", " Yes, score=7\r\n\ttests=A,B\r\n"));
    EXPECT_TRUE(matches("X-Spam-Status: Yes, score=7 tests=A,B", "X-Spam-Status", "Yes,\n  score=7 \n tests=A,B "));
}

TEST(HeaderRule, EmptyValueMatchesOnlyWhatTakesNothing) {
    EXPECT_FALSE(matches("X-Spam: Yes*", "X-Spam", ""));
    EXPECT_TRUE(matches("X-Spam: *", "X-Spam", " \r\n"));
}

TEST(HeaderRule, TextWithoutNameColonOrPatternIsRefused) {
    for (char const* text : {"", "X-Spam", ":", "X-Spam:", "X-Spam:  ", ": Yes", "X Spam: Yes", "X-Sp\xc3\xa4m: Yes"}) {
        EXPECT_EQ(problemOf(text),
                  '"' + std::string(text) + "\" is not a header's name, a colon and a pattern for its value");
    }
    EXPECT_NE(problemOf("X-Spam: /(/"), "none") << "an expression that is none";
    EXPECT_EQ(problemOf(" X-Spam : Yes"), "none");
}

TEST(ContentVerdict, OneHeaderThatSaysSoIsEnough) {
    ContentRules const rules{{HeaderRule::parse("X-A: yes"), HeaderRule::parse("X-B: yes")},
                             {HeaderRule::parse("X-V: infected*")}};
    ContentVerdict verdict;
    verdict.read(rules, "X-A", "no");
    verdict.read(rules, "X-V", "clean");
    EXPECT_FALSE(verdict.spam);
    EXPECT_FALSE(verdict.infected);
    verdict.read(rules, "X-B", "yes");
    EXPECT_TRUE(verdict.spam);
    EXPECT_FALSE(verdict.infected);
    verdict.read(rules, "X-B", "no");
    verdict.read(rules, "X-V", "Infected (Eicar)");
    EXPECT_TRUE(verdict.spam) << "a later header takes nothing back";
    EXPECT_TRUE(verdict.infected);
}

} // namespace
} // namespace Vellum::Daemon
