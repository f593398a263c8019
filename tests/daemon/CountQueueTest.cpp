#include "daemon/CountQueue.h"

#include "tests/daemon/FamiliesFixture.h"
#include "tests/support/Eventually.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <new>

namespace Vellum::Daemon {
namespace {

constexpr long start = FamiliesFixture::start;

// Keeps what it is told, and goes on only when it may.
struct Recorder : MessageObserver {
    void messageEnded(MessageSummary const& message, long now) override {
        ++begun;
        may.wait();
        if (message.recipients == 13) {
            throw std::bad_alloc();
        }
        seen.emplace_back(message.recipients, now);
    }
    std::promise<void> release;
    std::shared_future<void> may{release.get_future()};
    std::atomic<int> begun{0};
    std::vector<std::pair<std::uint32_t, long>> seen;
};

MessageSummary numbered(std::uint32_t number) {
    return summary("192.0.2.1", "jo@example.org", number);
}

TEST(CountQueue, MessageIsCountedWhenTheCallReturns) {
    Recorder recorder;
    recorder.release.set_value();
    CountQueue queue(recorder);
    queue.messageEnded(numbered(1), start);
    queue.waitUntilDone(); // a busy machine may take longer than the patience
    EXPECT_EQ(recorder.seen, (std::vector<std::pair<std::uint32_t, long>>{{1, start}}));
}

TEST(CountQueue, NobodyWaitsWhileCountingStandsAndAllIsCountedInItsOrderAfterwards) {
    Recorder recorder;
    CountQueue queue(recorder);
    std::vector<std::pair<std::uint32_t, long>> all;
    for (std::uint32_t i = 0; i < 1000; ++i) {
        all.emplace_back(i + 100, start + i);
        queue.messageEnded(numbered(i + 100), start + i); // returns, though nothing is counted
    }
    EXPECT_TRUE(eventually([&] { return recorder.begun == 1; }));
    recorder.release.set_value();
    queue.waitUntilDone();
    EXPECT_EQ(recorder.seen, all);
}

TEST(CountQueue, WhatIsBeyondTheBoundIsSaidAndNotCounted) {
    CapturingLogger log;
    Recorder recorder;
    CountQueue queue(recorder, 2);
    for (std::uint32_t i = 1; i <= 3; ++i) {
        queue.messageEnded(numbered(i), start);
    }
    EXPECT_EQ(log.notes(),
              std::vector<std::string>{"a message is not counted: 2 wait for somebody who reads all counters"});
    recorder.release.set_value();
    queue.waitUntilDone();
    EXPECT_EQ(recorder.seen, (std::vector<std::pair<std::uint32_t, long>>{{1, start}, {2, start}}));
}

TEST(CountQueue, OneThatFailsIsSaidAndHoldsUpNobody) {
    CapturingLogger log;
    Recorder recorder;
    recorder.release.set_value();
    CountQueue queue(recorder);
    queue.messageEnded(numbered(13), start);
    queue.messageEnded(numbered(14), start);
    queue.waitUntilDone();
    EXPECT_EQ(log.notes(), std::vector<std::string>{"a message is not counted: std::bad_alloc"});
    EXPECT_EQ(recorder.seen, (std::vector<std::pair<std::uint32_t, long>>{{14, start}}));
}

TEST(CountQueue, WhatWaitsAtTheEndIsCounted) {
    Recorder recorder;
    {
        CountQueue queue(recorder);
        queue.messageEnded(numbered(1), start);
        queue.messageEnded(numbered(2), start);
        recorder.release.set_value();
    }
    EXPECT_EQ(recorder.seen.size(), 2U);
}

// A client has stopped reading a listing, and messages end: decisions go on.
TEST(CountQueue, DecisionIsMadeWhileCountsWaitForAListing) {
    FamiliesFixture families;
    families.learn("192.0.2.9", "15555550100");
    StandingSettings settings;
    settings.rate = {.most = {1, 0, 0, 0, 0}, .strangers = true};
    settings.reputation.rejectScore = 80;
    MailCounts counts({.rate = settings.rate}, &families.subscribers);
    CountQueue queue(counts);
    Standing const standing(&families.subscribers);
    FamiliesFixture::reputationOf("192.0.2.1")->add(start / 3600, {100, 100, 0, 0, 90});
    FamiliesFixture::rateOf("blocked@example.org")->blockedUntil(start + 60);
    FamiliesFixture::rateOf("blocked@example.org")->state(SenderRateControl::RateControlState::blocked);
    auto const reasonFor = [&](char const* client, char const* sender) {
        Message mail;
        mail.client = IPAddress(client);
        mail.sender = EmailAddress::fromAddress(sender);
        auto const verdict = standing.judge(mail, settings, start);
        return verdict ? verdict->reason : Verdict::Reason::fresh;
    };
    SharedMutex* const listed[] = {&FamiliesFixture::rates().lock, &FamiliesFixture::reputations().lock};
    for (SharedMutex* const lock : listed) {
        SharedLock const listing(*lock);
        queue.messageEnded(summary("192.0.2.2", "jo@example.org"), start);
        ASSERT_TRUE(eventually([&] { return lock->isClaimed(); })) << "the count waits";
        EXPECT_EQ(reasonFor("192.0.2.3", "blocked@example.org"), Verdict::Reason::senderBlocked);
        EXPECT_EQ(reasonFor("192.0.2.1", "jo@example.org"), Verdict::Reason::badReputation);
        EXPECT_EQ(reasonFor("192.0.2.9", "new@example.org"), Verdict::Reason::fresh);
    }
    queue.waitUntilDone();
    SharedLock const hold(Reputation::Entry::s_lock);
    EXPECT_EQ(FamiliesFixture::reputationOf("192.0.2.2")->records().at(start / 3600).messageCount, 2U);
}

} // namespace
} // namespace Vellum::Daemon
