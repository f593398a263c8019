// The parts of an explanation that the handlers' test does not reach.
#include "daemon/ExplanationJson.h"

#include "tests/daemon/DecisionFixture.h"

#include <gtest/gtest.h>

#include <tuple>
#include <vector>

namespace Vellum::Daemon {
namespace {

using Situation = GreyList::TupleDecision::Situation;

Json explained(Explanation const& all) {
    return asJson(all, message("2001:db8::1", "jo@example.org", "me@example.com"));
}

TEST(ExplanationJson, TimesOfATupleAreToldOfOneThatIsThereOnly) {
    Explanation all;
    all.tuple.firstSeen = 100;
    all.tuple.passTime = 400;
    all.tuple.expiry = 9000;
    for (auto const& [situation, text, there] : {std::tuple(Situation::fresh, "new", false),
                                                 {Situation::expired, "expired", false},
                                                 {Situation::early, "waiting", true},
                                                 {Situation::passes, "passes", true}}) {
        all.tuple.situation = situation;
        EXPECT_EQ(explained(all).at("tuple"), Json({{"situation", text},
                                                    {"first_seen", there ? 100 : 0},
                                                    {"pass_time", there ? 400 : 0},
                                                    {"expiry", there ? 9000 : 0}}));
    }
}

TEST(ExplanationJson, StagesHaveNames) {
    Explanation all;
    for (auto const& [stage, text] : {std::pair(Stage::connect, "connect"),
                                      {Stage::sender, "sender"},
                                      {Stage::recipient, "recipient"},
                                      {Stage::endOfMessage, "end-of-message"}}) {
        all.stage = stage;
        EXPECT_EQ(explained(all).at("verdict"),
                  Json({{"action", "pass"}, {"reason", "incomplete"}, {"seconds_left", 0}, {"stage", text}}));
    }
}

TEST(ExplanationJson, SubscribersThatAreNotLookedUpAreNull) {
    Explanation all;
    EXPECT_TRUE(explained(all).at("endpoint").is_null());
    all.standing.subscribersKnown = true;
    all.standing.subscriber = MSISDN(std::string("15555550100"));
    all.standing.endpoint = {.exempt = true, .blacklisted = true, .blacklistedUntil = 77, .score = 5};
    all.limits.endpoint.blockScore = 20;
    EXPECT_EQ(explained(all).at("endpoint"), Json({{"subscriber", "15555550100"},
                                                   {"exempt", true},
                                                   {"blacklisted", true},
                                                   {"blacklisted_until", 77},
                                                   {"score", 5},
                                                   {"block_score", 20}}));
}

TEST(ExplanationJson, RuleAndExemptionAreToldWhereThereAreAny) {
    Explanation all;
    EXPECT_EQ(explained(all).at("rules"), Json({{"count", 0}, {"match", nullptr}}));
    all.rules = 3;
    all.rule = 0;
    all.canEarnExemption = true;
    all.exemptUntil = 500;
    all.autoExemptAfter = 4;
    EXPECT_EQ(explained(all).at("rules"), Json({{"count", 3}, {"match", 0}}));
    EXPECT_EQ(explained(all).at("exemption"), Json({{"possible", true}, {"until", 500}, {"after", 4}}));
}

// An hour without messages or without recipients has no score, and none is above 100: as "reputation show" has it.
TEST(ExplanationJson, EachHourHasTheScoreThatItWouldHaveAlone) {
    Explanation all;
    all.standing.score = 7;
    all.standing.hours = {{1, {0, 5, 5, 0, 0}}, {2, {5, 0, 5, 0, 0}}, {3, {1, 1, 1, 1, 1}}, {4, {100, 100, 0, 0, 80}}};
    std::vector<int> scores;
    Json const told = explained(all);
    for (Json const& hour : told.at("reputation").at("hours")) {
        scores.push_back(hour.at("score").get<int>());
    }
    EXPECT_EQ(scores, (std::vector<int>{0, 0, 100, 80}));
}

} // namespace
} // namespace Vellum::Daemon
