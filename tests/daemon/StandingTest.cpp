#include "daemon/Decision.h"

#include "daemon/ExemptRules.h"
#include "tests/daemon/DecisionFixture.h"
#include "tests/daemon/FamiliesFixture.h"

#include <gtest/gtest.h>

namespace Vellum::Daemon {
namespace {

using Action = Verdict::Action;
using Reason = Verdict::Reason;
constexpr long start = FamiliesFixture::start;

struct StandingFixture : FamiliesFixture {
    // Everything on.
    static StandingSettings settings() {
        StandingSettings all;
        all.rate = {.most = {1, 0, 0, 0, 0}, .strangers = true};
        all.reputation.deferScore = 40;
        all.reputation.rejectScore = 80;
        return all;
    }
    std::optional<Verdict> judge(Message const& asked, StandingSettings const& how = settings(),
                                 long now = start) const {
        return standing.judge(asked, how, now);
    }
    // So many messages of this hour, of which some were spam.
    static void send(std::string const& client, std::uint32_t messages, std::uint32_t spam) {
        reputationOf(client)->add(start / 3600, {messages, messages, 0, 0, spam});
    }
    static void block(std::string const& sender, long until) {
        auto const entry = rateOf(sender);
        entry->blockedReason(RateCounter::spam);
        entry->blockedUntil(until);
        entry->state(SenderRateControl::RateControlState::blocked);
    }

    Standing standing{&subscribers};
};

Message someMail() {
    return message("192.0.2.1", "jo@example.org", "me@example.com");
}

TEST(Standing, NothingIsHeldAgainstStrangersAndNothingIsRememberedOfThem) {
    StandingFixture families;
    EXPECT_FALSE(families.judge(someMail()));
    EXPECT_EQ(SenderRateControl::sizeOf(StandingFixture::rates()), 0U);
    SharedLock const hold(StandingFixture::reputations().lock);
    EXPECT_EQ(StandingFixture::reputations().sizeNoLock(), 0U);
}

TEST(Standing, ScoreAtTheThresholdCountsAndBelowItDoesNot) {
    StandingFixture families;
    StandingFixture::send("192.0.2.1", 100, 80); // scores 80
    auto const rejected = families.judge(someMail());
    ASSERT_TRUE(rejected);
    EXPECT_EQ(rejected->action, Action::reject);
    EXPECT_EQ(rejected->reason, Reason::badReputation);
    EXPECT_EQ(rejected->score, 80U);
    StandingSettings settings = StandingFixture::settings();
    settings.reputation.rejectScore = 81;
    EXPECT_EQ(families.judge(someMail(), settings)->action, Action::defer);
    settings.reputation.deferScore = 81;
    EXPECT_FALSE(families.judge(someMail(), settings));
    settings.reputation = {};
    EXPECT_FALSE(families.judge(someMail(), settings)) << "both off";
}

TEST(Standing, ReputationIsNotHeldAgainstWhoHasLoggedIn) {
    StandingFixture families;
    StandingFixture::send("192.0.2.1", 100, 80);
    Message mail = someMail();
    mail.authenticatedUser = "jo";
    EXPECT_FALSE(families.judge(mail));
}

TEST(Standing, BlockedSenderWaitsUntilTheEndAndNotLonger) {
    StandingFixture families;
    StandingFixture::block("jo@example.org", start + 10);
    auto const blocked = families.judge(someMail());
    ASSERT_TRUE(blocked);
    EXPECT_EQ(blocked->action, Action::defer);
    EXPECT_EQ(blocked->reason, Reason::senderBlocked);
    EXPECT_EQ(blocked->secondsLeft, 10);
    EXPECT_EQ(blocked->counter, 4U);
    EXPECT_TRUE(families.judge(someMail(), StandingFixture::settings(), start + 9));
    EXPECT_FALSE(families.judge(someMail(), StandingFixture::settings(), start + 10));
    StandingSettings off;
    EXPECT_FALSE(families.judge(someMail(), off)) << "without limits there are no blocks";
}

TEST(Standing, BlockOfTheLoggedInMailboxHoldsForEverySenderItWrites) {
    StandingFixture families;
    StandingFixture::block("jo@example.org", start + 10);
    Message mail = message("192.0.2.1", "forged@example.net", "me@example.com");
    mail.authenticatedUser = "jo@example.org";
    EXPECT_TRUE(families.judge(mail));
    mail.authenticatedUser = "al@example.org";
    EXPECT_FALSE(families.judge(mail));
}

TEST(Standing, BlacklistedSubscriberIsTreatedAsTheSettingsSay) {
    StandingFixture families;
    families.learn("192.0.2.1", "15555550100");
    EXPECT_FALSE(families.judge(someMail()));
    MMSReputation::RefCache::instance(nullptr, 0)->blacklist(MSISDN(std::string("15555550100")));
    auto const rejected = families.judge(someMail());
    ASSERT_TRUE(rejected);
    EXPECT_EQ(rejected->action, Action::reject);
    EXPECT_EQ(rejected->reason, Reason::endpointBlacklisted);
    EXPECT_EQ(rejected->subscriber.asString(), "15555550100");
    StandingSettings settings;
    settings.endpoint.blacklisted = Action::defer;
    EXPECT_EQ(families.judge(someMail(), settings)->action, Action::defer);
    settings.endpoint.blacklisted = Action::pass;
    EXPECT_FALSE(families.judge(someMail(), settings));
}

TEST(Standing, AutomaticBlacklistingHoldsUntilItsExpiry) {
    StandingFixture families;
    families.learn("192.0.2.1", "15555550100");
    auto const cache = MMSReputation::RefCache::instance(nullptr, 0);
    cache->entry(MSISDN(std::string("15555550100")), 0, true)->blacklistExpiry(start + 10);
    EXPECT_TRUE(families.judge(someMail(), StandingFixture::settings(), start + 10));
    EXPECT_FALSE(families.judge(someMail(), StandingFixture::settings(), start + 11));
}

TEST(Standing, ExemptSubscriberPassesWhateverElseIsHeldAgainstHim) {
    StandingFixture families;
    families.learn("192.0.2.1", "15555550100");
    StandingFixture::send("192.0.2.1", 100, 80);
    auto const cache = MMSReputation::RefCache::instance(nullptr, 0);
    cache->blacklist(MSISDN(std::string("15555550100")));
    cache->exempt(MSISDN(std::string("15555550100")));
    auto const exempt = families.judge(someMail());
    ASSERT_TRUE(exempt);
    EXPECT_EQ(exempt->action, Action::pass);
    EXPECT_EQ(exempt->reason, Reason::endpointExempt);
}

// The whole decision, with everything that may be held against a message.
struct StagesFixture : DecisionFixture {
    StagesFixture() : judged(tuples, exemptions, withStanding(), &families.standing) {}
    static DecisionSettings withStanding() {
        DecisionSettings settings;
        settings.standing = StandingFixture::settings();
        return settings;
    }

    StandingFixture families;
    Decision judged;
};

TEST(DecisionStages, StandingComesBeforeEverythingElse) {
    StagesFixture daemon;
    Message mail = someMail();
    mail.authenticatedUser = "jo@example.org";
    EXPECT_EQ(daemon.judged.atRecipient(mail, start).reason, Reason::authenticated);
    StandingFixture::block("jo@example.org", start + 10);
    EXPECT_EQ(daemon.judged.atRecipient(mail, start).reason, Reason::senderBlocked) << "a stolen account is logged in";
    EXPECT_EQ(daemon.tuples.sizeNoLock(), 0U) << "greylisting was not asked";
}

// Each fact is added to all those that it comes before, for the decision and for what explains it.
TEST(DecisionStages, FactsCountInTheirOrder) {
    StagesFixture daemon;
    daemon.families.learn("192.0.2.1", "15555550100");
    auto const endpoints = MMSReputation::RefCache::instance(nullptr, 0);
    MSISDN const subscriber(std::string("15555550100"));
    auto const expect = [&](Action action, Reason reason) {
        Verdict const explained = daemon.judged.explain(someMail(), start).verdict;
        EXPECT_EQ(explained.action, action);
        EXPECT_EQ(explained.reason, reason);
        Verdict const decided = daemon.judged.at(Stage::recipient, someMail(), start);
        EXPECT_EQ(decided.action, action);
        EXPECT_EQ(decided.reason, reason);
    };
    expect(Action::defer, Reason::fresh);
    daemon.exemptions.add({IPAddressMask("192.0.2.0/24"), "example.org"}, GreyList::Status(0, start + 1000, 1000));
    expect(Action::pass, Reason::autoExempt);
    DecisionSettings settings = StagesFixture::withStanding();
    settings.exemptRules = parseExemptRules("[[rule]]\nid = 7\nsender = \"jo@*\"\n", "rules.toml", 10);
    daemon.judged.install(settings);
    expect(Action::pass, Reason::exemptRule);
    StandingFixture::send("192.0.2.1", 100, 80);
    expect(Action::reject, Reason::badReputation);
    StandingFixture::block("jo@example.org", start + 10);
    expect(Action::defer, Reason::senderBlocked);
    endpoints->blacklist(subscriber);
    expect(Action::reject, Reason::endpointBlacklisted);
    endpoints->exempt(subscriber);
    expect(Action::pass, Reason::endpointExempt);
}

TEST(DecisionStages, AtSenderAndEndOnlyStandingIsDecided) {
    StagesFixture daemon;
    for (Stage const stage : {Stage::sender, Stage::endOfMessage}) {
        EXPECT_EQ(daemon.judged.at(stage, someMail(), start).reason, Reason::incomplete);
    }
    StandingFixture::block("jo@example.org", start + 10);
    for (Stage const stage : {Stage::sender, Stage::endOfMessage}) {
        EXPECT_EQ(daemon.judged.at(stage, someMail(), start).reason, Reason::senderBlocked);
    }
    EXPECT_EQ(daemon.judged.at(Stage::connect, someMail(), start).reason, Reason::incomplete);
    EXPECT_EQ(daemon.tuples.sizeNoLock(), 0U);
}

TEST(DecisionStages, SubscriberIsLookedUpAtTheConnection) {
    StagesFixture daemon;
    daemon.families.numbers[IPAddress(std::string("192.0.2.1"))] = "15555550100";
    MMSReputation::RefCache::instance(nullptr, 0)->blacklist(MSISDN(std::string("15555550100")));
    Message connecting;
    connecting.client = IPAddress(std::string("192.0.2.1"));
    EXPECT_EQ(daemon.judged.at(Stage::connect, connecting, start).action, Action::pass);
    daemon.families.subscribers.waitUntilIdle();
    EXPECT_EQ(daemon.judged.at(Stage::recipient, someMail(), start).reason, Reason::endpointBlacklisted);
}

TEST(DecisionStages, ExplanationHasTheVerdictAndChangesNothing) {
    StagesFixture daemon;
    Explanation const fresh = daemon.judged.explain(someMail(), start);
    EXPECT_EQ(fresh.verdict.reason, Reason::fresh);
    EXPECT_EQ(fresh.verdict.secondsLeft, 300);
    EXPECT_EQ(fresh.tuple.situation, GreyList::TupleDecision::Situation::fresh);
    EXPECT_EQ(daemon.tuples.sizeNoLock(), 0U);
    EXPECT_FALSE(fresh.standing.score);
    EXPECT_FALSE(fresh.standing.rate.known);

    daemon.judged.atRecipient(someMail(), start);
    EXPECT_EQ(daemon.judged.explain(someMail(), start + 100).verdict.reason, Reason::earlyRetry);
    EXPECT_EQ(daemon.judged.explain(someMail(), start + 100).verdict.secondsLeft, 200);
    EXPECT_EQ(daemon.judged.explain(someMail(), start + 300).verdict.reason, Reason::passed);
    EXPECT_EQ(daemon.judged.explain(someMail(), start + 300).verdict.reason, Reason::passed) << "it did not pass";

    StandingFixture::send("192.0.2.1", 100, 80);
    StandingFixture::block("jo@example.org", start + 10);
    StandingFixture::rateOf("jo@example.org")->increment(RateCounter::recipients, start / 300, 7);
    Explanation const bad = daemon.judged.explain(someMail(), start);
    EXPECT_EQ(bad.verdict.reason, Reason::senderBlocked);
    EXPECT_EQ(bad.standing.score, 80U);
    ASSERT_EQ(bad.standing.hours.size(), 1U);
    EXPECT_EQ(bad.standing.hours[0].second.spam, 80U);
    EXPECT_EQ(bad.standing.rate.totals, (std::array<std::uint32_t, 5>{0, 7, 0, 0, 0}));
    ASSERT_TRUE(bad.standing.block);
    EXPECT_EQ(bad.standing.block->until, start + 10);
}

TEST(DecisionStages, ReleasedTuplePasses) {
    StagesFixture daemon;
    daemon.judged.atRecipient(someMail(), start);
    EXPECT_TRUE(daemon.judged.release(message("192.0.2.200", "jo+x@EXAMPLE.org", "me@example.com"), start + 1))
        << "the same network and, folded, the same sender";
    EXPECT_EQ(daemon.judged.atRecipient(someMail(), start + 1).reason, Reason::passed);
    EXPECT_FALSE(daemon.judged.release(someMail(), start + 2));
}

} // namespace
} // namespace Vellum::Daemon
