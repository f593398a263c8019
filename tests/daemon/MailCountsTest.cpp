#include "tests/daemon/FamiliesFixture.h"
#include "tests/support/ReputationCache.h"

#include <gtest/gtest.h>

namespace Vellum::Daemon {
namespace {

using Lines = std::vector<std::string>;
using RateState = SenderRateControl::RateControlState;

struct CountsFixture : FamiliesFixture {
    // Without limits, and everybody is counted.
    explicit CountsFixture(MailLimits const& limits = {.rate = {.strangers = true}}) : counts(limits, &subscribers) {}

    // The counters of the hour of `start`: messages, recipients, invalid, spam, infected.
    static std::vector<std::uint32_t> hour(std::string const& client) {
        auto const entry = reputationOf(client);
        SharedLock const hold(Reputation::Entry::s_lock);
        auto const found = entry->records().find(start / 3600);
        if (found == entry->records().end()) {
            return {};
        }
        auto const& record = found->second;
        return {record.messageCount, record.recipients, record.invalidRecipients, record.spam, record.infected};
    }
    static std::vector<std::uint32_t> halfHour(std::string const& sender, long now = start) {
        SenderRateControlRecord totals;
        rateOf(sender)->totals(now, totals);
        return {totals.count1, totals.count2, totals.count3, totals.count4, totals.count5};
    }
    std::uint32_t endpointScore(std::string const& number) const {
        auto const slice = MMSReputation::Period(start, 30, 15).index;
        return m_cache->entry(MSISDN(number), 0, true)->score(slice, true);
    }

    MailCounts counts;
};

using Counts = std::vector<std::uint32_t>;

MessageSummary badMessage() {
    MessageSummary message = summary("192.0.2.1", "jo@example.org", 5);
    message.invalidRecipients = 2;
    message.spam = true;
    message.infected = true;
    return message;
}

TEST(MailCounts, MessageCountsForAddressAndSender) {
    CountsFixture families;
    families.counts.messageEnded(badMessage(), CountsFixture::start);
    families.counts.messageEnded(summary("192.0.2.1", "jo@example.org"), CountsFixture::start);
    EXPECT_EQ(CountsFixture::hour("192.0.2.1"), (Counts{2, 6, 2, 1, 1}));
    EXPECT_EQ(CountsFixture::halfHour("jo@example.org"), (Counts{2, 6, 2, 1, 1}));
}

TEST(MailCounts, AddressOfALoggedInClientIsNotHeldToAccount) {
    CountsFixture families;
    MessageSummary message = badMessage();
    message.authenticatedUser = "jo";
    families.counts.messageEnded(message, CountsFixture::start);
    EXPECT_EQ(CountsFixture::hour("192.0.2.1"), Counts{});
    EXPECT_EQ(CountsFixture::halfHour("jo"), (Counts{1, 5, 2, 1, 1}));
    EXPECT_EQ(CountsFixture::halfHour("jo@example.org"), (Counts{0, 0, 0, 0, 0})) << "the login is the name";
}

TEST(MailCounts, LoggedInMailboxIsTheSenderWhateverTheEnvelopeSays) {
    CountsFixture families;
    MessageSummary message = summary("192.0.2.1", "forged@example.net");
    message.authenticatedUser = "jo@example.org";
    families.counts.messageEnded(message, CountsFixture::start);
    EXPECT_EQ(CountsFixture::halfHour("jo@example.org"), (Counts{1, 1, 0, 0, 0}));
    EXPECT_EQ(CountsFixture::halfHour("forged@example.net"), (Counts{0, 0, 0, 0, 0}));
}

TEST(MailCounts, SenderThatHasNotLoggedInIsCountedOnlyOnDemandLestAnybodyHaveHimBlocked) {
    CountsFixture families({.rate = {.most = {1, 0, 0, 0, 0}}});
    for (int i = 0; i < 3; ++i) {
        families.counts.messageEnded(summary("192.0.2.1", "jo@example.org"), CountsFixture::start);
    }
    EXPECT_EQ(CountsFixture::hour("192.0.2.1"), (Counts{3, 3, 0, 0, 0})) << "the address is, whoever it claims to be";
    EXPECT_EQ(SenderRateControl::sizeOf(CountsFixture::rates()), 0U);
    EXPECT_EQ(families.logged(), Lines{});
}

TEST(MailCounts, BounceAndMailWithoutAClientAreCountedWhereTheyCanBe) {
    CountsFixture families;
    families.counts.messageEnded(summary("192.0.2.1", ""), CountsFixture::start);
    EXPECT_EQ(CountsFixture::hour("192.0.2.1"), (Counts{1, 1, 0, 0, 0}));
    EXPECT_EQ(SenderRateControl::sizeOf(CountsFixture::rates()), 0U);
    MessageSummary local = summary("192.0.2.2", "root@example.org");
    local.client = IPAddress();
    families.counts.messageEnded(local, CountsFixture::start);
    EXPECT_EQ(CountsFixture::halfHour("root@example.org"), (Counts{1, 1, 0, 0, 0}));
}

TEST(MailCounts, SenderAboveALimitIsBlockedAndAtTheLimitIsNot) {
    CountsFixture families({.rate = {.most = {0, 10, 0, 0, 0}, .strangers = true, .blockSeconds = 600}});
    families.counts.messageEnded(summary("192.0.2.1", "jo@example.org", 10), CountsFixture::start);
    EXPECT_EQ(CountsFixture::rateOf("jo@example.org")->state(), RateState::normal);
    families.counts.messageEnded(summary("192.0.2.1", "jo@example.org", 1), CountsFixture::start + 1);
    auto const entry = CountsFixture::rateOf("jo@example.org");
    EXPECT_EQ(entry->state(), RateState::blocked);
    EXPECT_EQ(entry->blockedUntil(), CountsFixture::start + 601);
    EXPECT_EQ(entry->blockedReason(), RateCounter::recipients);
    families.counts.messageEnded(summary("192.0.2.1", "jo@example.org", 1), CountsFixture::start + 2);
    EXPECT_EQ(entry->blockedUntil(), CountsFixture::start + 601) << "a block is not made longer";
    EXPECT_EQ(families.logged(),
              Lines{"action=block, sender=jo@example.org, reason=recipients, total=11, limit=10, seconds=600"});
}

TEST(MailCounts, FirstCounterAboveItsLimitIsTheReason) {
    CountsFixture families({.rate = {.most = {100, 100, 1, 100, 0}, .strangers = true}});
    families.counts.messageEnded(badMessage(), CountsFixture::start);
    EXPECT_EQ(CountsFixture::rateOf("jo@example.org")->blockedReason(), RateCounter::invalidRecipients);
}

TEST(MailCounts, BlockIsLiftedWhenItsTimeIsOver) {
    CountsFixture families({.rate = {.most = {1, 0, 0, 0, 0}, .strangers = true, .blockSeconds = 600}});
    for (int i = 0; i < 2; ++i) {
        families.counts.messageEnded(summary("192.0.2.1", "jo@example.org"), CountsFixture::start);
    }
    families.logged();
    MailCounts::BlockRound const early = MailCounts::liftBlocks(CountsFixture::start + 599);
    EXPECT_EQ(early.lifted, 0U);
    EXPECT_EQ(early.remaining, 1U);
    EXPECT_EQ(CountsFixture::rateOf("jo@example.org")->state(), RateState::blocked);
    MailCounts::BlockRound const due = MailCounts::liftBlocks(CountsFixture::start + 600);
    EXPECT_EQ(due.lifted, 1U);
    EXPECT_EQ(due.remaining, 0U);
    auto const entry = CountsFixture::rateOf("jo@example.org");
    EXPECT_EQ(entry->state(), RateState::normal);
    EXPECT_EQ(entry->blockedUntil(), 0);
    EXPECT_EQ(CountsFixture::halfHour("jo@example.org"), (Counts{2, 2, 0, 0, 0})) << "the counts stay";
    EXPECT_EQ(families.logged(), Lines{"action=unblock, sender=jo@example.org"});
    families.counts.messageEnded(summary("192.0.2.1", "jo@example.org"), CountsFixture::start + 601);
    EXPECT_EQ(entry->state(), RateState::blocked) << "they are above the limit yet";
}

TEST(MailCounts, SenderThatWasResetMaySendAsMuchAgainAsAnybody) {
    CountsFixture families({.rate = {.most = {0, 10, 0, 0, 0}, .strangers = true, .blockSeconds = 600}});
    EmailAddress const jo = EmailAddress::fromAddress("jo@example.org");
    families.counts.messageEnded(summary("192.0.2.1", "jo@example.org", 2), CountsFixture::start - 300);
    families.counts.messageEnded(summary("192.0.2.1", "jo@example.org", 9), CountsFixture::start);
    auto const entry = CountsFixture::rateOf("jo@example.org");
    ASSERT_EQ(entry->state(), RateState::blocked);
    MailCounts::Reset const reset = MailCounts::reset(jo);
    EXPECT_TRUE(reset.known);
    EXPECT_TRUE(reset.wasBlocked);
    EXPECT_EQ(reset.periods, 2U);
    EXPECT_EQ(entry->state(), RateState::normal);
    EXPECT_EQ(entry->blockedUntil(), 0);
    EXPECT_EQ(entry->blockedReason(), 0U);
    for (int message = 1; message <= 10; ++message) {
        families.counts.messageEnded(summary("192.0.2.1", "jo@example.org"), CountsFixture::start + message);
        EXPECT_EQ(entry->state(), RateState::normal) << "message " << message << " after the reset";
    }
    families.counts.messageEnded(summary("192.0.2.1", "jo@example.org"), CountsFixture::start + 11);
    EXPECT_EQ(entry->state(), RateState::blocked) << "the limit holds again";
}

TEST(MailCounts, ResetOfWhoIsNotBlockedForgetsTheTotalsAndOfAStrangerMakesNoEntry) {
    CountsFixture families;
    families.counts.messageEnded(summary("192.0.2.1", "jo@example.org", 9), CountsFixture::start);
    MailCounts::Reset const reset = MailCounts::reset(EmailAddress::fromAddress("jo@example.org"));
    EXPECT_TRUE(reset.known);
    EXPECT_FALSE(reset.wasBlocked);
    EXPECT_EQ(reset.periods, 1U);
    EXPECT_EQ(CountsFixture::halfHour("jo@example.org"), Counts(5, 0));
    MailCounts::Reset const unknown = MailCounts::reset(EmailAddress::fromAddress("al@example.org"));
    EXPECT_FALSE(unknown.known);
    EXPECT_FALSE(unknown.wasBlocked);
    EXPECT_EQ(unknown.periods, 0U);
    EXPECT_EQ(SenderRateControl::sizeOf(CountsFixture::rates()), 1U);
}

TEST(MailCounts, HoursThatNoScoreCountsAnyMoreAreDropped) {
    CountsFixture families;
    long const later = CountsFixture::start + 12 * 3600;
    families.counts.messageEnded(summary("192.0.2.1", "jo@example.org"), CountsFixture::start);
    families.counts.messageEnded(summary("192.0.2.1", "jo@example.org"), later);
    MailCounts::dropOldHours(later - 3600);
    EXPECT_EQ(Reputation::recordsOf(CountsFixture::reputationOf("192.0.2.1")).size(), 2U) << "eleven hours old";
    MailCounts::dropOldHours(later);
    auto const records = Reputation::recordsOf(CountsFixture::reputationOf("192.0.2.1"));
    ASSERT_EQ(records.size(), 1U);
    EXPECT_EQ(records.begin()->first, later / 3600);
}

TEST(MailCounts, SubscriberIsCountedAndBlacklistedAtTheScore) {
    CountsFixture families({.endpoint = {.blockScore = 3, .blockSeconds = 7200}});
    families.learn("192.0.2.1", "15555550100");
    families.counts.messageEnded(badMessage(), CountsFixture::start);
    EXPECT_EQ(families.endpointScore("15555550100"), 2U);
    families.logged();
    MessageSummary spam = summary("192.0.2.1", "al@example.org");
    spam.spam = true;
    families.counts.messageEnded(spam, CountsFixture::start);
    EXPECT_EQ(families.endpointScore("15555550100"), 3U);
    EXPECT_EQ(families.logged(),
              Lines{"action=block, subscriber=15555550100, reason=score, total=3, limit=3, seconds=7200"});
    families.counts.messageEnded(spam, CountsFixture::start);
    EXPECT_EQ(families.logged(), Lines{}) << "blacklisted already";
}

TEST(MailCounts, ExemptSubscriberAndCleanMailAreNotCounted) {
    CountsFixture families;
    families.learn("192.0.2.1", "15555550100");
    families.counts.messageEnded(summary("192.0.2.1", "jo@example.org"), CountsFixture::start);
    EXPECT_EQ(families.endpointScore("15555550100"), 0U);
    families.learn("192.0.2.3", "15555550101");
    CountsFixture const* same = &families;
    MMSReputation::RefCache::instance(nullptr, 0)->exempt(MSISDN(std::string("15555550101")));
    MessageSummary bad = badMessage();
    bad.client = IPAddress(std::string("192.0.2.3"));
    families.counts.messageEnded(bad, CountsFixture::start);
    EXPECT_EQ(same->endpointScore("15555550101"), 0U);
}

} // namespace
} // namespace Vellum::Daemon
