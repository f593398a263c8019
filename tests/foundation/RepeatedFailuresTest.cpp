#include "foundation/RepeatedFailures.h"

#include "foundation/LoggedFailure.h"
#include "tests/support/CapturingLogger.h"

#include <gtest/gtest.h>

#include <thread>

namespace Vellum {
namespace {

using Lines = std::vector<std::string>;

struct Tried {
    // One round in which these fail; what was logged of it.
    Lines round(std::vector<std::string> const& failures, std::string const& logged = {}) {
        RepeatedFailures::Round const round(said, logged);
        return fail(failures);
    }
    Lines fail(std::vector<std::string> const& failures) {
        log.clear();
        for (std::string const& text : failures) {
            logFailure(0x03000001, "Source", 17, Exception(text.c_str(), Exception::failure));
        }
        Lines lines;
        for (auto const& record : log.records()) {
            lines.push_back(record.fields.back().substr(0, 1));
        }
        return lines;
    }
    CapturingLogger log;
    RepeatedFailures said;
};

TEST(RepeatedFailures, TheSameIsLoggedOnceHoweverOftenItIsMet) {
    Tried tried;
    EXPECT_EQ(tried.round({"a"}), Lines{"a"});
    EXPECT_EQ(tried.round({"a"}), Lines{});
    EXPECT_EQ(tried.round({"a", "b"}), Lines{"b"}) << "another one is logged";
    EXPECT_EQ(tried.round({"b", "a"}), Lines{});
}

TEST(RepeatedFailures, WhatWasGoneForARoundIsLoggedAgain) {
    Tried tried;
    tried.round({"a", "b"});
    EXPECT_EQ(tried.round({"b"}), Lines{});
    EXPECT_EQ(tried.round({"a", "b"}), Lines{"a"});
    tried.round({});
    EXPECT_EQ(tried.round({"a", "b"}), (Lines{"a", "b"}));
}

TEST(RepeatedFailures, WhatWasLoggedBeforeTheFirstRoundIsNotLoggedAgain) {
    Tried tried;
    std::string const text = Exception("a", Exception::failure).asString();
    EXPECT_EQ(tried.round({"a", "b"}, "the table could not be loaded: " + text), Lines{"b"});
    EXPECT_EQ(tried.round({"a", "b"}), Lines{});
}

TEST(RepeatedFailures, TheCodeTellsFailuresApart) {
    Tried tried;
    tried.round({"a"});
    RepeatedFailures::Round const round(tried.said);
    Exception const failed("a", Exception::failure);
    EXPECT_TRUE(RepeatedFailures::isRepeated(0x03000001, failed.asString()));
    EXPECT_FALSE(RepeatedFailures::isRepeated(0x03000002, failed.asString()));
}

TEST(RepeatedFailures, OutsideOfARoundAndOnOtherThreadsEverythingIsLogged) {
    Tried tried;
    tried.round({"a"});
    EXPECT_EQ(tried.fail({"a", "a"}), (Lines{"a", "a"}));
    RepeatedFailures::Round const round(tried.said);
    Lines other;
    std::thread([&] { other = tried.fail({"a"}); }).join();
    EXPECT_EQ(other, Lines{"a"});
}

TEST(RepeatedFailures, ARoundWithinARoundIsOfItsOwn) {
    Tried outer;
    RepeatedFailures inner;
    outer.round({"a"});
    RepeatedFailures::Round const round(outer.said);
    {
        RepeatedFailures::Round const within(inner);
        EXPECT_EQ(outer.fail({"a"}), Lines{"a"});
    }
    EXPECT_EQ(outer.fail({"a"}), Lines{});
}

} // namespace
} // namespace Vellum
