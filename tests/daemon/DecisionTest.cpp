#include "tests/daemon/DecisionFixture.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

namespace Vellum::Daemon {
namespace {

using Action = Verdict::Action;
using Reason = Verdict::Reason;
constexpr long day = 86400;

Message someMail() {
    return message("192.0.2.77", "jo@example.org", "me@example.com");
}

void expect(Verdict const& verdict, Action action, Reason reason) {
    EXPECT_EQ(verdict.action == Action::defer, action == Action::defer);
    EXPECT_EQ(reasonText(verdict.reason), reasonText(reason));
}

GreyList::RefExemptRuleSet rulesFor(char const* sender) {
    GreyList::RefExemptRuleSet rules("test");
    rules->add(GreyList::RefExemptRule(7, StringPattern(sender), {}, {}, {}));
    return rules;
}

TEST(Decision, WithoutAClientOrARecipientNothingIsDecided) {
    DecisionFixture daemon;
    expect(daemon.ask(message("", "jo@example.org", "me@example.com"), 0), Action::pass, Reason::incomplete);
    expect(daemon.ask(message("192.0.2.77", "jo@example.org", ""), 0), Action::pass, Reason::incomplete);
    expect(daemon.ask(someMail(), 0), Action::defer, Reason::fresh);
}

TEST(Decision, AuthenticatedClientsPassAndLeaveNoTrace) {
    DecisionFixture daemon({}, {.exemptRules = rulesFor("jo@*")});
    Message mail = someMail();
    mail.authenticatedUser = "jo";
    expect(daemon.ask(mail, 0), Action::pass, Reason::authenticated);
    daemon.decision.install({});
    expect(daemon.ask(someMail(), 1000), Action::defer, Reason::fresh);
}

TEST(Decision, SwitchedOffEverythingPasses) {
    DecisionFixture daemon({}, {.greylisting = false, .exemptRules = rulesFor("*")});
    expect(daemon.ask(someMail(), 0), Action::pass, Reason::disabled);
    daemon.decision.install({});
    expect(daemon.ask(someMail(), 1000), Action::defer, Reason::fresh);
}

TEST(Decision, ARuleComesBeforeTheTupleAndIsNamed) {
    DecisionFixture daemon({}, {.exemptRules = rulesFor("jo@*")});
    Verdict const verdict = daemon.ask(someMail(), 0);
    expect(verdict, Action::pass, Reason::exemptRule);
    EXPECT_EQ(verdict.rule, 7U);
    expect(daemon.ask(message("192.0.2.77", "al@example.org", "me@example.com"), 0), Action::defer, Reason::fresh);
}

TEST(Decision, RulesSeeTheAddressAsItCame) {
    DecisionFixture daemon({}, {.exemptRules = rulesFor("jo+urgent@example.org")});
    expect(daemon.ask(message("192.0.2.77", "jo+urgent@EXAMPLE.org", "me@example.com"), 0), Action::pass,
           Reason::exemptRule);
    expect(daemon.ask(message("192.0.2.77", "jo@example.org", "me@example.com"), 0), Action::defer, Reason::fresh);
}

TEST(Decision, ARuleComesBeforeAnExemption) {
    DecisionFixture daemon({}, {.exemptRules = rulesFor("jo@*")});
    daemon.exemptions.add({IPAddressMask("192.0.2.0/24"), "example.org"}, GreyList::Status(0, 1000, 1000));
    expect(daemon.ask(someMail(), 999), Action::pass, Reason::exemptRule);
    daemon.decision.install({});
    expect(daemon.ask(someMail(), 999), Action::pass, Reason::autoExempt);
}

TEST(Decision, ATupleGoesThroughItsLife) {
    DecisionFixture daemon;
    Verdict verdict = daemon.ask(someMail(), 1000);
    expect(verdict, Action::defer, Reason::fresh);
    EXPECT_EQ(verdict.secondsLeft, 300);
    EXPECT_EQ(verdict.firstSeen, 1000);
    EXPECT_EQ(verdict.network.asString(), "192.0.2.0/24");

    verdict = daemon.ask(someMail(), 1299);
    expect(verdict, Action::defer, Reason::earlyRetry);
    EXPECT_EQ(verdict.secondsLeft, 1);
    EXPECT_EQ(verdict.firstSeen, 1000);

    verdict = daemon.ask(someMail(), 1300);
    expect(verdict, Action::pass, Reason::passed);
    EXPECT_EQ(verdict.secondsWaited, 300);
    EXPECT_FALSE(verdict.exemptionEarned);

    verdict = daemon.ask(someMail(), 1301);
    expect(verdict, Action::pass, Reason::known);
    EXPECT_EQ(verdict.secondsWaited, 301);
    EXPECT_EQ(verdict.firstSeen, 1000);

    expect(daemon.ask(someMail(), 1301 + 36 * day), Action::pass, Reason::known);
    verdict = daemon.ask(someMail(), 1301 + 72 * day + 1);
    expect(verdict, Action::defer, Reason::restarted);
    EXPECT_EQ(verdict.secondsLeft, 300);
    EXPECT_EQ(verdict.firstSeen, 1301 + 72 * day + 1);
}

TEST(Decision, AWaitingTupleRestartsOneSecondAfterItsFirstLife) {
    DecisionFixture atTheEnd;
    atTheEnd.ask(someMail(), 0);
    expect(atTheEnd.ask(someMail(), 14400), Action::pass, Reason::passed);
    DecisionFixture later;
    later.ask(someMail(), 0);
    expect(later.ask(someMail(), 14401), Action::defer, Reason::restarted);
    expect(later.ask(someMail(), 14700), Action::defer, Reason::earlyRetry);
    expect(later.ask(someMail(), 14701), Action::pass, Reason::passed);
}

TEST(Decision, ClientsOfOneNetworkAreOneSender) {
    DecisionFixture daemon;
    daemon.ask(message("192.0.2.1", "jo@example.org", "me@example.com"), 0);
    expect(daemon.ask(message("192.0.2.254", "jo@example.org", "me@example.com"), 300), Action::pass, Reason::passed);
    expect(daemon.ask(message("192.0.3.1", "jo@example.org", "me@example.com"), 300), Action::defer, Reason::fresh);
    daemon.ask(message("2001:db8::1", "jo@example.org", "me@example.com"), 0);
    expect(daemon.ask(message("2001:db8::ffff:0:0:1", "jo@example.org", "me@example.com"), 300), Action::pass,
           Reason::passed);
    expect(daemon.ask(message("2001:db8:0:1::1", "jo@example.org", "me@example.com"), 300), Action::defer,
           Reason::fresh);
}

TEST(Decision, FoldedAddressesAreOneTuple) {
    DecisionFixture daemon;
    daemon.ask(message("192.0.2.1", "list-return-17-me=example.com@Lists.Example", "me+lists@EXAMPLE.com"), 0);
    expect(daemon.ask(message("192.0.2.1", "list-return-18-me=example.com@lists.example", "me@example.com"), 300),
           Action::pass, Reason::passed);
    expect(daemon.ask(message("192.0.2.1", "list-return-18-you=example.com@lists.example", "me@example.com"), 300),
           Action::defer, Reason::fresh);
}

TEST(Decision, ANullSenderIsATupleLikeAnyOtherAndEarnsNothing) {
    DecisionFixture daemon({}, {.autoExemptAfter = 1});
    expect(daemon.ask(message("192.0.2.1", "", "me@example.com"), 0), Action::defer, Reason::fresh);
    Verdict const verdict = daemon.ask(message("192.0.2.1", "", "me@example.com"), 300);
    expect(verdict, Action::pass, Reason::passed);
    EXPECT_FALSE(verdict.exemptionEarned);
    expect(daemon.ask(message("192.0.2.1", "", "you@example.com"), 301), Action::defer, Reason::fresh);
}

TEST(Decision, AnExemptionIsEarnedByTheNthTupleAndSaid) {
    DecisionFixture daemon({}, {.autoExemptAfter = 3});
    EXPECT_FALSE(daemon.askTwice(message("192.0.2.1", "a@Example.org", "me@example.com"), 0).exemptionEarned);
    EXPECT_FALSE(daemon.askTwice(message("192.0.2.2", "a@example.org", "you@example.com"), 0).exemptionEarned);
    expect(daemon.ask(message("192.0.2.3", "c@example.org", "me@example.com"), 300), Action::defer, Reason::fresh);
    Verdict const third = daemon.ask(message("192.0.2.3", "c@example.org", "me@example.com"), 600);
    expect(third, Action::pass, Reason::passed);
    EXPECT_TRUE(third.exemptionEarned);
    EXPECT_EQ(daemon.log.notes(),
              std::vector<std::string>{"event=auto-exempt-earned, network=192.0.2.0/24, domain=example.org, tuples=3"});

    Verdict const exempt = daemon.ask(message("192.0.2.4", "new@EXAMPLE.ORG", "me@example.com"), 600);
    expect(exempt, Action::pass, Reason::autoExempt);
    EXPECT_EQ(exempt.network.asString(), "192.0.2.0/24");
    expect(daemon.ask(message("198.51.100.4", "new@example.org", "me@example.com"), 600), Action::defer, Reason::fresh);
    expect(daemon.ask(message("192.0.2.4", "new@sub.example.org", "me@example.com"), 600), Action::defer,
           Reason::fresh);
}

TEST(Decision, AnEarnedExemptionLivesFromItsLastUse) {
    DecisionFixture daemon({}, {.autoExemptAfter = 1});
    ASSERT_TRUE(daemon.askTwice(someMail(), 0).exemptionEarned);
    Message const other = message("192.0.2.1", "other@example.org", "me@example.com");
    expect(daemon.ask(other, 300 + 36 * day - 1), Action::pass, Reason::autoExempt);
    expect(daemon.ask(other, 300 + 72 * day - 1), Action::defer, Reason::fresh);
}

TEST(Decision, ATupleThatExpiredAndPassesAgainCountsOnce) {
    DecisionFixture daemon({}, {.autoExemptAfter = 2});
    EXPECT_FALSE(daemon.askTwice(someMail(), 0).exemptionEarned);
    Verdict const again = daemon.askTwice(someMail(), 100 * day);
    expect(again, Action::pass, Reason::passed);
    EXPECT_FALSE(again.exemptionEarned);
    EXPECT_TRUE(daemon.askTwice(message("192.0.2.1", "al@example.org", "me@example.com"), 100 * day).exemptionEarned);
}

TEST(Decision, AnEvictedTupleThatPassesAgainCountsOnce) {
    DecisionFixture daemon({.maxRecords = 4}, {.autoExemptAfter = 2});
    EXPECT_FALSE(daemon.askTwice(someMail(), 0).exemptionEarned);
    for (char const* recipient : {"a@example.com", "b@example.com", "c@example.com", "d@example.com"}) {
        daemon.ask(message("198.51.100.1", "x@example.net", recipient), 400);
    }
    expect(daemon.ask(someMail(), 500), Action::defer, Reason::fresh);
    EXPECT_FALSE(daemon.ask(someMail(), 800).exemptionEarned);
}

TEST(Decision, ALostExemptionHasToBeEarnedAnew) {
    DecisionFixture daemon({}, {.autoExemptAfter = 2});
    daemon.askTwice(message("192.0.2.1", "a@example.org", "me@example.com"), 0);
    ASSERT_TRUE(daemon.askTwice(message("192.0.2.1", "b@example.org", "me@example.com"), 0).exemptionEarned);
    daemon.exemptions.clear();
    EXPECT_FALSE(daemon.askTwice(message("192.0.2.1", "c@example.org", "me@example.com"), 400).exemptionEarned);
    EXPECT_TRUE(daemon.askTwice(message("192.0.2.1", "d@example.org", "me@example.com"), 400).exemptionEarned);
}

TEST(Decision, ZeroSwitchesAutomaticExemptionsOff) {
    DecisionFixture daemon({}, {.autoExemptAfter = 0});
    daemon.exemptions.add({IPAddressMask("192.0.2.0/24"), "example.org"}, GreyList::Status(0, 1000, 1000));
    expect(daemon.ask(someMail(), 0), Action::defer, Reason::fresh);
    EXPECT_FALSE(daemon.ask(someMail(), 300).exemptionEarned);
    daemon.decision.rebuildPassCounts(400);
}

TEST(Decision, DomainsThatCannotBeStoredEarnNothing) {
    DecisionFixture daemon({}, {.autoExemptAfter = 1});
    std::string const longest(128, 'd');
    EXPECT_TRUE(daemon.askTwice(message("192.0.2.1", "a@" + longest, "me@example.com"), 0).exemptionEarned);
    EXPECT_FALSE(daemon.askTwice(message("192.0.2.1", "a@d" + longest, "me@example.com"), 0).exemptionEarned);
    EXPECT_FALSE(daemon.askTwice(message("192.0.2.1", "a@it's.example", "me@example.com"), 0).exemptionEarned);
    EXPECT_FALSE(daemon.askTwice(message("192.0.2.1", "a@back\\slash", "me@example.com"), 0).exemptionEarned);
    EXPECT_FALSE(daemon.askTwice(message("192.0.2.1", "root", "me@example.com"), 0).exemptionEarned);
}

TEST(Decision, ExemptionsKeepToAQuarterOfTheRecordsAndTheRestWaits) {
    DecisionFixture daemon({.maxRecords = 8}, {.autoExemptAfter = 1});
    EXPECT_TRUE(daemon.askTwice(message("192.0.2.1", "a@a.example", "me@example.com"), 0).exemptionEarned);
    EXPECT_TRUE(daemon.askTwice(message("192.0.2.1", "a@b.example", "me@example.com"), 0).exemptionEarned);
    EXPECT_FALSE(daemon.askTwice(message("192.0.2.1", "a@c.example", "me@example.com"), 0).exemptionEarned);
    EXPECT_FALSE(daemon.askTwice(message("192.0.2.1", "a@d.example", "me@example.com"), 0).exemptionEarned);
    expect(daemon.ask(message("192.0.2.1", "a@c.example", "me@example.com"), 301), Action::pass, Reason::known);
    EXPECT_EQ(daemon.log.notes(),
              (std::vector<std::string>{"event=auto-exempt-earned, network=192.0.2.0/24, domain=a.example, tuples=1",
                                        "event=auto-exempt-earned, network=192.0.2.0/24, domain=b.example, tuples=1",
                                        "event=auto-exempt-full, network=192.0.2.0/24, domain=c.example, room=2"}))
        << "the want of room is said once";

    EXPECT_EQ(daemon.decision.dropDeadExemptions(300 + 36 * day - 1), 0U);
    EXPECT_EQ(daemon.decision.dropDeadExemptions(300 + 36 * day), 2U);
    EXPECT_TRUE(daemon.askTwice(message("192.0.2.1", "e@c.example", "me@example.com"), 37 * day).exemptionEarned)
        << "there is room again";
}

TEST(Decision, CountsAreRebuiltFromTheTuples) {
    DecisionFixture daemon({}, {.autoExemptAfter = 4});
    IPAddressMask const network("192.0.2.0/24");
    EmailAddress const me = EmailAddress::fromAddress("me@example.com");
    auto const load = [&](char const* sender, long firstSeen, long expiry) {
        daemon.tuples.add({network, EmailAddress::fromAddress(sender), me}, GreyList::Status(firstSeen, expiry, 0));
    };
    load("a@a.example", 0, 36 * day);
    load("b@a.example", 5599, 20000);  // one second more than it may wait: it has passed
    load("c@a.example", 10000, 24400); // still waiting
    load("d@a.example", 0, 19999);     // dead
    load("", 0, 36 * day);
    load("a@b.example", 0, 36 * day);
    load("b@b.example", 0, 36 * day);
    load("c@b.example", 0, 36 * day);
    daemon.exemptions.add({network, "b.example"}, GreyList::Status(0, 1, 0));
    daemon.decision.rebuildPassCounts(20000);
    daemon.decision.rebuildPassCounts(20000); // as often as one likes

    auto const passes = [&](char const* sender, long now) {
        Verdict const verdict = daemon.ask(message("192.0.2.1", sender, "me@example.com"), now);
        expect(verdict, Action::pass, Reason::passed);
        return verdict.exemptionEarned;
    };
    daemon.ask(message("192.0.2.1", "e@a.example", "me@example.com"), 20000);
    EXPECT_FALSE(passes("c@a.example", 20000)) << "a, b and c";
    EXPECT_TRUE(passes("e@a.example", 20300)) << "and e";
    daemon.ask(message("192.0.2.1", "d@b.example", "me@example.com"), 20000);
    EXPECT_FALSE(passes("d@b.example", 20300)) << "a pair with an exemption, dead or not, starts from nothing";
}

TEST(Decision, WhoHadEnoughBeforeIsExemptAtTheNextFirstPass) {
    DecisionFixture daemon({}, {.autoExemptAfter = 0});
    for (char const* sender : {"a@example.org", "b@example.org", "c@example.org"}) {
        daemon.askTwice(message("192.0.2.1", sender, "me@example.com"), 0);
    }
    daemon.decision.install({.autoExemptAfter = 2});
    daemon.decision.rebuildPassCounts(400);
    expect(daemon.ask(message("192.0.2.1", "a@example.org", "me@example.com"), 400), Action::pass, Reason::known);
    EXPECT_TRUE(daemon.askTwice(message("192.0.2.1", "d@example.org", "me@example.com"), 400).exemptionEarned);
}

TEST(Decision, ManyThreadsEarnOneExemptionForEachPair) {
    constexpr int threads = 4;
    constexpr int domains = 20;
    DecisionFixture daemon({}, {.autoExemptAfter = 8});
    std::atomic<int> earned{0};
    std::vector<std::thread> running;
    for (int t = 0; t < threads; ++t) {
        running.emplace_back([&, t] {
            for (int i = 0; i < domains * 4; ++i) {
                std::string const sender = "s" + std::to_string(t) + "x" + std::to_string(i / domains) + "@d" +
                                           std::to_string(i % domains) + ".example";
                earned += daemon.askTwice(message("192.0.2.1", sender, "me@example.com"), 0).exemptionEarned ? 1 : 0;
                if (i % 7 == t) {
                    daemon.decision.install({.autoExemptAfter = 8});
                    daemon.decision.rebuildPassCounts(400);
                    daemon.decision.dropDeadExemptions(0);
                }
            }
        });
    }
    for (std::thread& thread : running) {
        thread.join();
    }
    SharedLock const hold(daemon.exemptions.lock);
    EXPECT_EQ(daemon.exemptions.sizeNoLock(), 20U);
    EXPECT_EQ(earned, domains);
}

} // namespace
} // namespace Vellum::Daemon
