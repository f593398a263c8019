// Decisions beside somebody who reads a whole cache, as a listing to a slow client does.
#include "daemon/LateTuples.h"

#include "tests/daemon/DecisionFixture.h"

#include <gtest/gtest.h>

#include <thread>

namespace Vellum::Daemon {
namespace {

using GreyList::TupleParts;

constexpr long start = 1'700'000'000;

struct LateFixture : DecisionFixture {
    using DecisionFixture::DecisionFixture;

    long firstSeen(std::string const& sender) const {
        auto const decided = tuples.preview({network, sender, "me@example.org"}, start);
        return decided.begins() ? 0 : decided.firstSeen;
    }

    IPAddressMask network = GreyList::Configuration::createMask(IPAddress("192.0.2.1"));
};

Message mail(std::string const& sender) {
    return message("192.0.2.1", sender, "me@example.org");
}

TEST(LateTuples, NewTupleIsDecidedWhileOthersReadAndItsPeriodBeginsThen) {
    LateFixture daemon;
    {
        SharedLock const listing(daemon.tuples.lock);
        Verdict const first = daemon.ask(mail("a@example.com"), start);
        EXPECT_EQ(first.reason, Verdict::Reason::fresh);
        EXPECT_EQ(first.secondsLeft, 300);
        EXPECT_EQ(daemon.ask(mail("a@example.com"), start + 10).reason, Verdict::Reason::fresh);
        EXPECT_EQ(daemon.tuples.sizeNoLock(), 0U);
    }
    daemon.decision.settle();
    EXPECT_EQ(daemon.firstSeen("a@example.com"), start) << "of its first attempt";
    EXPECT_EQ(daemon.ask(mail("a@example.com"), start + 299).reason, Verdict::Reason::earlyRetry);
    EXPECT_EQ(daemon.ask(mail("a@example.com"), start + 300).reason, Verdict::Reason::passed);
}

TEST(LateTuples, ExpiredTupleStartsAgainLikewise) {
    LateFixture daemon;
    daemon.ask(mail("a@example.com"), start - 14401);
    {
        SharedLock const listing(daemon.tuples.lock);
        EXPECT_EQ(daemon.ask(mail("a@example.com"), start).reason, Verdict::Reason::restarted);
    }
    daemon.decision.settle();
    EXPECT_EQ(daemon.firstSeen("a@example.com"), start);
}

TEST(LateTuples, KnownTuplesAndExemptionsAreDecidedBesideAWriterThatWaits) {
    LateFixture daemon;
    daemon.ask(mail("a@example.com"), start);
    daemon.exemptions.add(GreyList::DynamicExemptId(daemon.network, "exempt.example"),
                          GreyList::Status(start, start + 100, 100));
    DecisionSettings settings;
    settings.autoExemptAfter = 3;
    daemon.decision.install(settings);
    std::thread writers[2];
    {
        SharedLock const listingTuples(daemon.tuples.lock);
        SharedLock const listingExemptions(daemon.exemptions.lock);
        writers[0] = std::thread([&] { daemon.tuples.remove(GreyList::TupleId({daemon.network, "x@y", "z@y"})); });
        writers[1] =
            std::thread([&] { daemon.exemptions.remove(GreyList::DynamicExemptId(daemon.network, "other.example")); });
        while (!daemon.tuples.lock.isClaimed() || !daemon.exemptions.lock.isClaimed()) {
            std::this_thread::yield();
        }
        EXPECT_EQ(daemon.ask(mail("a@example.com"), start + 300).reason, Verdict::Reason::passed);
        EXPECT_EQ(daemon.ask(mail("b@example.com"), start).reason, Verdict::Reason::fresh);
        EXPECT_EQ(daemon.ask(mail("jo@exempt.example"), start + 99).reason, Verdict::Reason::autoExempt);
    }
    for (std::thread& writer : writers) {
        writer.join();
    }
}

TEST(LateTuples, WhatIsBeyondTheBoundBeginsWithItsNextAttempt) {
    LateFixture daemon;
    LateTuples late(daemon.tuples, 2);
    {
        SharedLock const listing(daemon.tuples.lock);
        late.add({daemon.network, "a@example.com", "me@example.org"}, start - 1);
        late.add({daemon.network, "b@example.com", "me@example.org"}, start - 2);
        late.add({daemon.network, "c@example.com", "me@example.org"}, start - 3);
        late.add({daemon.network, "a@example.com", "me@example.org"}, start);
    }
    late.waitUntilDone();
    EXPECT_EQ(daemon.firstSeen("a@example.com"), start - 1);
    EXPECT_EQ(daemon.firstSeen("b@example.com"), start - 2);
    EXPECT_EQ(daemon.firstSeen("c@example.com"), 0);
}

TEST(LateTuples, WhatHappenedToATupleMeanwhileStays) {
    LateFixture daemon;
    auto const id = [&](char const* sender) {
        return GreyList::TupleId({daemon.network, sender, "me@example.org"});
    };
    daemon.tuples.admit(id("a@example.com"), start);
    EXPECT_EQ(daemon.firstSeen("a@example.com"), start);
    daemon.tuples.admit(id("a@example.com"), start + 1);
    EXPECT_EQ(daemon.firstSeen("a@example.com"), start) << "begun before";
    daemon.tuples.admit(id("a@example.com"), start - 1);
    EXPECT_EQ(daemon.firstSeen("a@example.com"), start - 1) << "begun afterwards: the earlier time holds";

    ASSERT_TRUE(daemon.tuples.release({daemon.network, "b@example.com", "me@example.org"}, start));
    daemon.tuples.admit(id("b@example.com"), start - 10);
    EXPECT_EQ(daemon.firstSeen("b@example.com"), start - 300);
    Verdict const passed = daemon.ask(mail("b@example.com"), start + 1);
    EXPECT_EQ(passed.reason, Verdict::Reason::passed) << "for the first time: nothing has passed by letting it in";

    daemon.tuples.decide(id("c@example.com"), start - 400);
    daemon.tuples.decide(id("c@example.com"), start - 100);
    daemon.tuples.admit(id("c@example.com"), start - 500);
    EXPECT_EQ(daemon.firstSeen("c@example.com"), start - 400) << "it has passed";
}

TEST(LateTuples, AllAreLetInBeforeTheEnd) {
    LateFixture daemon;
    {
        LateTuples late(daemon.tuples);
        SharedLock listing(daemon.tuples.lock);
        late.add({daemon.network, "a@example.com", "me@example.org"}, start);
        late.add({daemon.network, "b@example.com", "me@example.org"}, start);
        listing.release();
    }
    EXPECT_EQ(daemon.firstSeen("a@example.com"), start);
    EXPECT_EQ(daemon.firstSeen("b@example.com"), start);
}

TEST(LateTuples, ExemptionIsEarnedWithThePassOfTheNextTupleWhereOthersRead) {
    LateFixture daemon;
    DecisionSettings settings;
    settings.autoExemptAfter = 2;
    daemon.decision.install(settings);
    for (char const* sender : {"a@example.com", "b@example.com", "c@example.com"}) {
        daemon.ask(mail(sender), start);
    }
    EXPECT_FALSE(daemon.ask(mail("a@example.com"), start + 300).exemptionEarned);
    {
        SharedLock const listing(daemon.exemptions.lock);
        Verdict const second = daemon.ask(mail("b@example.com"), start + 301);
        EXPECT_EQ(second.reason, Verdict::Reason::passed);
        EXPECT_FALSE(second.exemptionEarned);
    }
    EXPECT_TRUE(daemon.ask(mail("c@example.com"), start + 302).exemptionEarned);
}

TEST(LateTuples, DeadExemptionIsReplacedByOneThatIsEarnedAgain) {
    LateFixture daemon;
    DecisionSettings settings;
    settings.autoExemptAfter = 1;
    daemon.decision.install(settings);
    daemon.exemptions.add(GreyList::DynamicExemptId(daemon.network, "example.com"),
                          GreyList::Status(start, start + 300, 100));
    EXPECT_EQ(daemon.ask(mail("a@example.com"), start + 300).reason, Verdict::Reason::fresh) << "it is dead now";
    EXPECT_TRUE(daemon.ask(mail("a@example.com"), start + 600).exemptionEarned);
    EXPECT_EQ(daemon.ask(mail("b@example.com"), start + 601).reason, Verdict::Reason::autoExempt);
}

} // namespace
} // namespace Vellum::Daemon
