#include "daemon/SubscriberDirectory.h"

#include "tests/support/CapturingLogger.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <map>
#include <stdexcept>
#include <string>

namespace Vellum::Daemon {
namespace {

IPAddress ip(std::string const& text) {
    return IPAddress(text);
}

struct DirectoryFixture {
    explicit DirectoryFixture(SubscriberDirectory::Options const& options = {.threads = 1})
        : directory([this](IPAddress const& address) { return lookUp(address); }, [this] { return now.load(); },
                    options) {}

    std::string lookUp(IPAddress const& address) {
        ++lookups;
        if (fails) {
            throw std::runtime_error("no server");
        }
        return numbers[address];
    }
    // What is known at once, and what is known when the lookup is done.
    std::string of(std::string const& address) { return directory.of(ip(address)).asString(); }
    std::string ofLater(std::string const& address) {
        of(address);
        directory.waitUntilIdle();
        return of(address);
    }

    CapturingLogger log;
    std::map<IPAddress, std::string> numbers; // changed only while the directory is idle
    std::atomic<long> now{1000};
    std::atomic<int> lookups{0};
    std::atomic<bool> fails{false};
    SubscriberDirectory directory; // last: its threads use the others
};

TEST(SubscriberDirectory, UnknownAddressIsAnsweredAtOnceAndKnownLater) {
    DirectoryFixture fixture;
    fixture.numbers[ip("192.0.2.1")] = "15555550100";
    EXPECT_EQ(fixture.of("192.0.2.1"), "");
    fixture.directory.waitUntilIdle();
    EXPECT_EQ(fixture.of("192.0.2.1"), "15555550100");
    EXPECT_EQ(fixture.lookups, 1);
    EXPECT_EQ(fixture.ofLater("2001:db8::1"), "") << "nobody's";
    EXPECT_EQ(fixture.ofLater("2001:db8::1"), "");
    EXPECT_EQ(fixture.lookups, 2) << "and that is remembered";
}

TEST(SubscriberDirectory, FreshAnswerIsNotLookedUpAgainAndAnOldOneIsWhileItHolds) {
    DirectoryFixture fixture({.freshSeconds = 60, .staleSeconds = 600, .threads = 1});
    fixture.numbers[ip("192.0.2.1")] = "15555550100";
    fixture.ofLater("192.0.2.1");
    fixture.numbers[ip("192.0.2.1")] = "15555550199";
    fixture.now = 1059;
    EXPECT_EQ(fixture.ofLater("192.0.2.1"), "15555550100");
    EXPECT_EQ(fixture.lookups, 1);
    fixture.now = 1060;
    EXPECT_EQ(fixture.of("192.0.2.1"), "15555550100") << "told while it is looked up";
    fixture.directory.waitUntilIdle();
    EXPECT_EQ(fixture.of("192.0.2.1"), "15555550199") << "the address has changed hands";
}

TEST(SubscriberDirectory, StaleAnswerIsNotBelieved) {
    DirectoryFixture fixture({.freshSeconds = 60, .staleSeconds = 600, .threads = 1});
    fixture.numbers[ip("192.0.2.1")] = "15555550100";
    fixture.ofLater("192.0.2.1");
    fixture.fails = true;
    fixture.now = 1600;
    EXPECT_EQ(fixture.ofLater("192.0.2.1"), "15555550100");
    fixture.now = 1601;
    EXPECT_EQ(fixture.ofLater("192.0.2.1"), "");
    fixture.now = 999;
    EXPECT_EQ(fixture.ofLater("192.0.2.1"), "") << "a clock that was put back";
}

TEST(SubscriberDirectory, TroubleAndItsEndAreSaidOnce) {
    DirectoryFixture fixture({.pauseSeconds = 0, .threads = 1});
    fixture.fails = true;
    fixture.ofLater("192.0.2.1");
    fixture.ofLater("192.0.2.2");
    fixture.fails = false;
    fixture.ofLater("192.0.2.1");
    EXPECT_EQ(fixture.log.notes(), (std::vector<std::string>{"subscribers cannot be looked up: no server",
                                                             "the accounting database answers again"}));
}

TEST(SubscriberDirectory, AfterAFailureNothingIsAskedForSomeSeconds) {
    DirectoryFixture fixture({.pauseSeconds = 5, .threads = 1});
    fixture.numbers[ip("192.0.2.1")] = "15555550100";
    fixture.fails = true;
    fixture.ofLater("192.0.2.1");
    fixture.fails = false;
    int const failed = fixture.lookups;
    fixture.now = 1004;
    EXPECT_EQ(fixture.ofLater("192.0.2.1"), "");
    EXPECT_EQ(fixture.lookups, failed);
    fixture.now = 1005;
    EXPECT_EQ(fixture.ofLater("192.0.2.1"), "15555550100");
    EXPECT_EQ(fixture.lookups, failed + 1);
}

TEST(SubscriberDirectory, PauseEndsWhereTheClockWasPutBack) {
    DirectoryFixture fixture({.pauseSeconds = 5, .threads = 1});
    fixture.numbers[ip("192.0.2.1")] = "15555550100";
    fixture.fails = true;
    fixture.ofLater("192.0.2.1");
    fixture.fails = false;
    fixture.now = 999;
    EXPECT_EQ(fixture.ofLater("192.0.2.1"), "15555550100");
}

TEST(SubscriberDirectory, WhatIsQueuedAtAFailureIsDroppedAndAskedForAgain) {
    std::promise<void> release;
    std::shared_future<void> const released(release.get_future());
    std::atomic<int> lookups{0};
    std::atomic<long> now{1000};
    SubscriberDirectory directory(
        [&](IPAddress const&) -> std::string {
            released.wait();
            if (++lookups == 1) {
                throw std::runtime_error("no server");
            }
            return "15555550100";
        },
        [&] { return now.load(); }, {.pauseSeconds = 5, .threads = 1});
    CapturingLogger const log;
    for (char const* address : {"192.0.2.1", "192.0.2.2", "192.0.2.3"}) {
        directory.of(ip(address));
    }
    release.set_value();
    directory.waitUntilIdle();
    EXPECT_EQ(lookups, 1);
    now = 1005;
    directory.of(ip("192.0.2.3"));
    directory.waitUntilIdle();
    EXPECT_EQ(directory.of(ip("192.0.2.3")).asString(), "15555550100");
}

TEST(SubscriberDirectory, AddressIsQueuedOnceAndTheQueueIsBounded) {
    std::promise<void> release;
    std::shared_future<void> const released(release.get_future());
    std::atomic<int> lookups{0};
    SubscriberDirectory directory(
        [&](IPAddress const&) {
            ++lookups;
            released.wait();
            return std::string();
        },
        [] { return 1000L; }, {.mostQueued = 2, .threads = 1});
    for (int i = 0; i < 3; ++i) {
        directory.of(ip("192.0.2.1"));
    }
    while (lookups == 0) { // until the first one is in hand
        std::this_thread::yield();
    }
    for (char const* address : {"192.0.2.1", "192.0.2.2", "192.0.2.3", "192.0.2.4", "192.0.2.2"}) {
        directory.of(ip(address));
    }
    release.set_value();
    directory.waitUntilIdle();
    EXPECT_EQ(lookups, 3) << "one in hand and two queued";
}

TEST(SubscriberDirectory, NullAddressIsNobodys) {
    DirectoryFixture fixture;
    EXPECT_TRUE(fixture.directory.of(IPAddress()).isNull());
    EXPECT_EQ(fixture.lookups, 0);
}

} // namespace
} // namespace Vellum::Daemon
