#include "foundation/database/ScriptOutcomes.h"

#include "../support/FakeDatabaseDaemon.h"
#include "foundation/database/DatabaseDaemon.h"

#include <cstring>
#include <gtest/gtest.h>

namespace Vellum::DatabaseDaemon {
namespace {

ScriptOutcomes someOutcomes() {
    return {{4, {.ran = {{17, 1700000000}}, .refused = {{18, 1700003600, "error 1136: no, \"never\""}}}},
            {5, {.ran = {{12, -1}}, .refused = {}}},
            {9, {.ran = {}, .refused = {{3, 5, ""}}}}};
}

constexpr char const* someText = "4 ran 17 1700000000\n"
                                 "4 refused 18 1700003600 error 1136: no, \"never\"\n"
                                 "5 ran 12 -1\n"
                                 "9 refused 3 5 \n";

std::string behind(std::int32_t length, std::string const& text) {
    std::string bytes(sizeof length, '\0');
    std::memcpy(bytes.data(), &length, sizeof length);
    return bytes + text;
}

TEST(ScriptOutcomes, AreOneLineEach) {
    EXPECT_EQ(asText(someOutcomes()), someText);
    EXPECT_EQ(parseScriptOutcomes(someText), someOutcomes());
    EXPECT_EQ(asText({}), "");
    EXPECT_EQ(asText({{4, {}}}), "");
}

TEST(ScriptOutcomes, ReasonIsAlwaysOneLineAndStaysAsItIsThen) {
    ScriptOutcomes const foreign{{4, {.ran = {}, .refused = {{1, 2, "a\nb \x1b[2J \xff\\n"}}}}};
    std::string const text = asText(foreign);
    EXPECT_EQ(text, "4 refused 1 2 a\\nb \\x1b[2J \\xff\\n\n");
    EXPECT_EQ(asText(parseScriptOutcomes(text)), text);
}

TEST(ScriptOutcomes, LinesOfAnotherFormArePassedOver) {
    for (char const* line : {"", " ", "4", "4 ran", "4 ran 17", "4 ran 17 x", "4 ran x 17", "4 ran -1 17", "x ran 17 5",
                             "4 ran 18446744073709551616 5", "4 ran 17 9223372036854775808", "2147483648 ran 17 5",
                             "4 went 17 5", "4  ran 17 5", " 4 ran 17 5"}) {
        EXPECT_EQ(parseScriptOutcomes(std::string(line) + "\n5 ran 12 -1\n"),
                  (ScriptOutcomes{{5, {.ran = {{12, -1}}, .refused = {}}}}))
            << line;
    }
    EXPECT_EQ(parseScriptOutcomes("4 ran 17 5"), (ScriptOutcomes{{4, {.ran = {{17, 5}}, .refused = {}}}})) << "no end";
}

TEST(ScriptOutcomes, AreAskedForByARequestOfTheirOwn) {
    FakeDatabaseDaemon daemon;
    daemon.answerWith(behind(static_cast<std::int32_t>(std::strlen(someText)), someText));
    ScriptOutcomes told;
    EXPECT_EQ(askForOutcomes(told), Answer::accepted);
    EXPECT_EQ(told, someOutcomes());
    ASSERT_EQ(daemon.requests().size(), 1U);
    EXPECT_EQ(daemon.requests()[0], std::string("\1\0\0\0\2\0\0\0/\0", 10));
}

TEST(ScriptOutcomes, StayAsTheyWereWithoutAWholeAnswer) {
    FakeDatabaseDaemon daemon;
    ScriptOutcomes told = someOutcomes();
    for (std::string const& bytes : {std::string(), std::string("\1\0", 2), behind(7, "4 ran"), behind(-1, ""),
                                     behind(static_cast<std::int32_t>(longestText) + 1, std::string(70000, '\n'))}) {
        daemon.answerWith(bytes);
        EXPECT_EQ(askForOutcomes(told), Answer::unreachable);
        EXPECT_EQ(told, someOutcomes());
    }
    daemon.answerWith(behind(static_cast<std::int32_t>(longestText), std::string(longestText, '\n')));
    EXPECT_EQ(askForOutcomes(told), Answer::accepted) << "no longer than it may be";
    EXPECT_EQ(told, ScriptOutcomes{});
}

TEST(ScriptOutcomes, ADaemonThatDoesNotKnowTheRequestIsThereAllTheSame) {
    FakeDatabaseDaemon daemon(static_cast<std::int32_t>(Answer::unknownCode));
    ScriptOutcomes told = someOutcomes();
    EXPECT_EQ(askForOutcomes(told), Answer::unknownCode);
    EXPECT_EQ(told, someOutcomes());
}

} // namespace
} // namespace Vellum::DatabaseDaemon
