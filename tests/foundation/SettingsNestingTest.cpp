#include "foundation/SettingsNesting.h"

#include "foundation/Settings.h"

#include <algorithm>
#include <cstring>
#include <gtest/gtest.h>
#include <string>

namespace Vellum {
namespace {

std::string times(std::size_t count, std::string const& text) {
    std::string all;
    for (std::size_t i = 0; i < count; ++i) {
        all += text;
    }
    return all;
}

std::string refusal(std::string const& text) {
    try {
        SettingsTable::parse(text, "v.toml");
    } catch (SettingsError const& refused) {
        return refused.message();
    }
    return "accepted";
}

constexpr char const* tooDeep = "v.toml:2: expected at most 32 levels of lists, tables and dotted keys";

TEST(SettingsNesting, ListsAreTakenDownToTheLastLevel) {
    EXPECT_EQ(refusal("\na = " + times(32, "[") + times(32, "]")), "accepted");
    EXPECT_EQ(refusal("\na = " + times(33, "[") + times(33, "]")), tooDeep);
}

TEST(SettingsNesting, InlineTablesAreTakenDownToTheLastLevel) {
    EXPECT_EQ(refusal("\na = " + times(32, "{a = ") + "1" + times(32, "}")), "accepted");
    EXPECT_EQ(refusal("\na = " + times(33, "{a = ") + "1" + times(33, "}")), tooDeep);
}

TEST(SettingsNesting, DottedKeysAreTakenDownToTheLastLevel) {
    EXPECT_EQ(refusal("\n" + times(32, "a.") + "a = 1"), "accepted");
    EXPECT_EQ(refusal("\n" + times(33, "a.") + "a = 1"), tooDeep);
    EXPECT_EQ(refusal("\n[" + times(31, "a.") + "a]"), "accepted");
    EXPECT_EQ(refusal("\n[" + times(32, "a.") + "a]"), tooDeep);
}

// Each of these ended the process, or kept it busy for minutes.
TEST(SettingsNesting, WhatWouldEndTheParserIsRefusedAtOnce) {
    for (char const* const level : {"[", "{a = ", "{a.a = ", "[[", "[{a = "}) {
        EXPECT_EQ(refusal("\na = " + times(200'000, level)), tooDeep) << level;
    }
    EXPECT_EQ(refusal("\n" + times(200'000, "a.") + "a = 1"), tooDeep);
}

TEST(SettingsNesting, WhatWasClosedCountsNoMore) {
    EXPECT_EQ(lineNestedDeeperThan(1, "a = [1, 2]\n[b]\n[c]\nd = {e = 1, f = 2}\n"), 0U);
    EXPECT_EQ(lineNestedDeeperThan(1, "a.b = 1\nc.d = 1.5\ne = [1]\n"), 0U);
    EXPECT_EQ(lineNestedDeeperThan(2, "a = [1.5, 2.5, 3.5]\n"), 0U) << "a dot in each";
    EXPECT_EQ(lineNestedDeeperThan(1, "]]]}}}\n"), 0U);
    EXPECT_EQ(lineNestedDeeperThan(1, "a = [\n[\n1]]\n"), 2U);
}

TEST(SettingsNesting, QuotedTextsAndCommentsHoldNoLevels) {
    for (char const* const text : {
             "# [[[[\na = 1\n",
             "a = \"[[[[\"\n",
             "a = '[[[['\n",
             "a = \"\\\"[[[[\\\\\"\n",                  // an escaped quote, an escaped backslash
             "a = '\\'\nb = 1\n",                       // a backslash is none of an escape there
             "a = \"\"\"\n[[[[\n\"\n\"\" [[[[\"\"\"\n", // over lines, with quotes in it
             "a = '''\n[[[['' [[[[\n'''\n",
             "a = \"\"\"[[[[\\\"\"\" [[[[\"\"\"\n",
             "\"a.b.c.d.e\" = \"[[[[\" # [[[[\n",
         }) {
        EXPECT_EQ(lineNestedDeeperThan(1, text), 0U) << text;
        auto const lines = static_cast<unsigned int>(std::count(text, text + std::strlen(text), '\n'));
        EXPECT_EQ(lineNestedDeeperThan(1, std::string(text) + "x = [["), lines + 1) << text;
    }
    EXPECT_EQ(lineNestedDeeperThan(1, "a = \"\"\"x\"\"\"\"\"\nb = [["), 2U)
        << "two quotes of the text's own at its end";
    EXPECT_EQ(lineNestedDeeperThan(1, "a = \"\"\nb = [["), 2U);
}

TEST(SettingsNesting, TextWithoutAnEndHidesNoMoreThanItMay) {
    EXPECT_EQ(lineNestedDeeperThan(1, "a = \"[[\nb = [["), 2U);
    EXPECT_EQ(lineNestedDeeperThan(1, "a = \"\"\"[[\nb = [["), 0U);
    EXPECT_EQ(lineNestedDeeperThan(1, "a = \"\\"), 0U);
    EXPECT_EQ(lineNestedDeeperThan(1, "# [["), 0U);
    EXPECT_EQ(lineNestedDeeperThan(1, ""), 0U);
}

} // namespace
} // namespace Vellum
