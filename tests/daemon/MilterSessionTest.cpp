#include "daemon/MilterSession.h"

#include "tests/daemon/DecisionFixture.h"
#include "tests/daemon/FamiliesFixture.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

namespace Vellum::Daemon {
namespace {

constexpr long start = 1795252757; // Sat, 21 Nov 2026 09:19:17 UTC

// What was reported, a line each.
class Reports : public MessageObserver {
  public:
    void messageEnded(MessageSummary const& message, long now) override {
        lines.push_back(message.client.asString() + " <" + message.sender.address() + "> [" +
                        message.authenticatedUser + "] recipients=" + std::to_string(message.recipients) +
                        " invalid=" + std::to_string(message.invalidRecipients) +
                        (message.finished ? " finished" : " abandoned") + (message.spam ? " spam" : "") +
                        (message.infected ? " infected" : "") + " at " + std::to_string(now - start));
        if (fails) {
            throw std::runtime_error("no memory for a count");
        }
    }
    std::vector<std::string> lines;
    bool fails = false;
};

MilterFrontSettings frontSettings() {
    MilterFrontSettings settings;
    settings.texts.greylisted = "Please wait %SECONDS% s, 100%";
    settings.hostName = "mx.example.com";
    settings.content = {{HeaderRule::parse("X-Spam-Flag: YES*")}, {HeaderRule::parse("X-Virus-Status: Infected*")}};
    return settings;
}

struct MilterFixture : DecisionFixture {
    MilterFixture() { session.connected("mx.example.org", IPAddress(std::string("192.0.2.77"))); }

    // How it is refused; "" when it goes on.
    std::string recipient(std::string const& path, MilterSession::RecipientFacts const& facts = {}) {
        auto const refusal = session.recipient(path, facts);
        return refusal ? std::string(refusal->code) + ' ' + refusal->status + ' ' + refusal->text : "";
    }
    // One refused by the mail server itself.
    void refused(std::string const& path, std::string_view status) {
        EXPECT_EQ(recipient(path, {.refused = true, .refusalStatus = status}), "");
    }
    std::vector<std::string> logged() {
        std::vector<std::string> const notes = log.notes();
        log.clear();
        return notes;
    }

    long now = start;
    Reports reports;
    MilterFront front{decision, reports, frontSettings(), [this] {
                          return now;
                      }};
    MilterSession session{front};
};

using Lines = std::vector<std::string>;

TEST(MilterSession, NewTupleIsDeferredWithTheTextOfTheSettings) {
    MilterFixture milter;
    milter.session.sender("<jo@example.org>");
    EXPECT_EQ(milter.recipient("<me@example.com>", {.queueId = "4BXy2k"}), "450 4.2.0 Please wait 300 s, 100%");
    EXPECT_EQ(milter.logged(),
              Lines{"action=greylist, reason=new, client_name=mx.example.org, client_address=192.0.2.77, "
                    "sender=jo@example.org, recipient=me@example.com, seconds_left=300, queue_id=4BXy2k"});
    milter.now += 299;
    EXPECT_EQ(milter.recipient("<me@example.com>"), "450 4.2.0 Please wait 1 s, 100%");
    EXPECT_EQ(milter.front.counters().of(Verdict::Reason::fresh), 1U);
    EXPECT_EQ(milter.front.counters().of(Verdict::Reason::earlyRetry), 1U);
}

TEST(MilterSession, AMessageIsCountedAtItsFirstRecipientThatTheMailServerTakes) {
    MilterFixture milter;
    milter.session.sender("<jo@example.org>");
    EXPECT_EQ(milter.front.counters().messages(), 0U);
    milter.recipient("<nobody@example.com>", {.refused = true, .refusalStatus = "5.1.1"});
    EXPECT_EQ(milter.front.counters().messages(), 0U);
    milter.recipient("<a@example.com>");
    milter.recipient("<b@example.com>");
    EXPECT_EQ(milter.front.counters().messages(), 1U);
    milter.session.sender("<jo@example.org>");
    milter.recipient("<a@example.com>");
    EXPECT_EQ(milter.front.counters().messages(), 2U);
}

TEST(MilterSession, MailThatHadToWaitGetsTheHeaderOnce) {
    MilterFixture milter;
    milter.session.sender("<jo@example.org>");
    milter.recipient("<a@example.com>");
    milter.now += 60;
    milter.recipient("<b@example.com>");
    milter.session.abandoned();
    milter.now = start + 400;
    milter.session.sender("<jo@example.org>");
    EXPECT_EQ(milter.recipient("<a@example.com>"), "");
    EXPECT_EQ(milter.recipient("<b@example.com>"), "");
    EXPECT_EQ(milter.session.messageEnded().header,
              "delayed 400 seconds by vellumd at mx.example.com; Sat, 21 Nov 2026 09:25:57 +0000")
        << "the longest wait of its recipients";
    milter.session.sender("<jo@example.org>");
    milter.recipient("<a@example.com>");
    EXPECT_EQ(milter.session.messageEnded().header, std::nullopt) << "known by now";
}

TEST(MilterSession, HeaderCanBeSwitchedOff) {
    MilterFixture milter;
    MilterFrontSettings settings = frontSettings();
    settings.header = false;
    milter.front.install(settings);
    milter.session.sender("<jo@example.org>");
    milter.recipient("<a@example.com>");
    milter.now += 300;
    milter.session.sender("<jo@example.org>");
    EXPECT_EQ(milter.recipient("<a@example.com>"), "");
    EXPECT_EQ(milter.session.messageEnded().header, std::nullopt);
}

TEST(MilterSession, FinishedMessageIsReportedOnceWithWhatTheContentFilterFound) {
    MilterFixture milter;
    milter.session.sender("<jo@example.org>");
    milter.recipient("<a@example.com>", {.authenticatedUser = "jo"});
    milter.recipient("<b@example.com>", {.authenticatedUser = "jo"});
    milter.session.header("Subject", "hello");
    milter.session.header("X-Spam-Flag", "YES");
    milter.session.header("X-Virus-Status", "Clean");
    milter.session.messageEnded();
    milter.session.abandoned();
    EXPECT_EQ(milter.reports.lines,
              Lines{"192.0.2.77 <jo@example.org> [jo] recipients=2 invalid=0 finished spam at 0"});
    milter.session.sender("<jo@example.org>");
    milter.recipient("<a@example.com>", {.authenticatedUser = "jo"});
    milter.session.header("X-Virus-Status", "Infected (Eicar)");
    milter.session.messageEnded();
    EXPECT_EQ(milter.reports.lines.back(),
              "192.0.2.77 <jo@example.org> [jo] recipients=1 invalid=0 finished infected at 0");
}

TEST(MilterSession, RecipientThatDoesNotExistIsCountedAndAnotherRefusalIsNot) {
    MilterFixture milter;
    milter.session.sender("<jo@example.org>");
    milter.refused("<nobody@example.com>", "5.1.1");
    milter.refused("<nowhere@example.net>", "5.1.2");
    milter.refused("<relay@example.net>", "5.7.1");
    milter.refused("<later@example.com>", "4.2.0");
    milter.refused("<plain@example.com>", "");
    milter.session.abandoned();
    EXPECT_EQ(milter.reports.lines, Lines{"192.0.2.77 <jo@example.org> [] recipients=2 invalid=2 abandoned at 0"});
    EXPECT_EQ(milter.logged(), Lines{}) << "nothing was decided";
}

TEST(MilterSession, OnlyAStatusOfTheRecipientMakesItAnInvalidOne) {
    for (char const* status : {"5.1.1", "5.1.2", "5.1.3", "5.1.4", "5.1.6", "5.1.10"}) {
        MilterFixture milter;
        milter.session.sender("<jo@example.org>");
        milter.refused("<nobody@example.com>", status);
        milter.session.abandoned();
        EXPECT_EQ(milter.reports.lines, Lines{"192.0.2.77 <jo@example.org> [] recipients=1 invalid=1 abandoned at 0"})
            << status;
    }
    for (char const* status : {"5.1.0", "5.1.5", "5.1.7", "5.1.8", "5.1.9", "5.1.11", "5.1.100", "5.1.", "5.1", "4.1.1",
                               "5.1.1 ", "5.2.1"}) {
        MilterFixture milter;
        milter.session.sender("<nobody@nowhere.example>");
        milter.refused("<me@example.com>", status);
        milter.session.abandoned();
        EXPECT_EQ(milter.reports.lines, Lines{}) << status << ": the sender is refused, or it is not said who";
    }
}

TEST(MilterSession, TransactionWhoseRecipientsAllWaitIsNotReported) {
    MilterFixture milter;
    milter.session.sender("<jo@example.org>");
    milter.recipient("<a@example.com>");
    milter.recipient("<b@example.com>");
    milter.session.abandoned();
    EXPECT_EQ(milter.reports.lines, Lines{});
}

TEST(MilterSession, RecipientThatWaitsIsNotCountedBesideOneThatDoesNot) {
    MilterFixture milter;
    milter.session.sender("<jo@example.org>");
    milter.recipient("<a@example.com>");
    milter.session.abandoned();
    milter.now += 300;
    milter.session.sender("<jo@example.org>");
    EXPECT_EQ(milter.recipient("<a@example.com>"), "");
    EXPECT_NE(milter.recipient("<b@example.com>"), "");
    milter.session.messageEnded();
    EXPECT_EQ(milter.reports.lines, Lines{"192.0.2.77 <jo@example.org> [] recipients=1 invalid=0 finished at 300"});
}

TEST(MilterSession, AbandonedMessageSaysNothingOfItsContent) {
    MilterFixture milter;
    milter.session.sender("<>");
    milter.recipient("<a@example.com>", {.authenticatedUser = "jo"});
    milter.session.header("X-Spam-Flag", "YES");
    milter.session.abandoned();
    EXPECT_EQ(milter.reports.lines, Lines{"192.0.2.77 <> [jo] recipients=1 invalid=0 abandoned at 0"});
}

TEST(MilterSession, NewSenderAbandonsWhatWasNotEnded) {
    MilterFixture milter;
    milter.session.sender("<one@example.org>");
    milter.recipient("<a@example.com>", {.authenticatedUser = "jo"});
    milter.session.sender("<two@example.org>");
    EXPECT_EQ(milter.reports.lines, Lines{"192.0.2.77 <one@example.org> [jo] recipients=1 invalid=0 abandoned at 0"});
}

TEST(MilterSession, ObserverThatFailsIsToldOfNoTransactionTwice) {
    MilterFixture milter;
    milter.session.sender("<one@example.org>");
    milter.recipient("<a@example.com>", {.authenticatedUser = "jo"});
    milter.reports.fails = true;
    EXPECT_THROW(milter.session.messageEnded(), std::runtime_error);
    milter.session.abandoned();
    milter.session.sender("<two@example.org>");
    milter.recipient("<b@example.com>", {.authenticatedUser = "jo"});
    EXPECT_THROW(milter.session.sender("<three@example.org>"), std::runtime_error);
    milter.recipient("<c@example.com>", {.authenticatedUser = "jo"});
    EXPECT_THROW(milter.session.abandoned(), std::runtime_error);
    milter.reports.fails = false;
    milter.session.sender("<four@example.org>");
    milter.session.abandoned();
    EXPECT_EQ(milter.reports.lines,
              (Lines{"192.0.2.77 <one@example.org> [jo] recipients=1 invalid=0 finished at 0",
                     "192.0.2.77 <two@example.org> [jo] recipients=1 invalid=0 abandoned at 0",
                     "192.0.2.77 <three@example.org> [jo] recipients=1 invalid=0 abandoned at 0"}))
        << "the third began although the second could not be reported";
}

// A session that holds against a sender what rate control knows of him, and does not greylist.
struct StandingMilterFixture : DecisionFixture {
    static DecisionSettings settings() {
        DecisionSettings all;
        all.greylisting = false;
        all.standing.rate = {.most = {1, 0, 0, 0, 0}, .strangers = true};
        return all;
    }
    StandingMilterFixture() { session.connected("mx.example.org", IPAddress(std::string("192.0.2.77"))); }

    FamiliesFixture families;
    Standing standing{nullptr};
    Decision judged{tuples, exemptions, settings(), &standing};
    Reports reports;
    MilterFront front{judged, reports, frontSettings(), [] {
                          return start;
                      }};
    MilterSession session{front};
};

void block(std::string const& sender) {
    auto const entry = FamiliesFixture::rateOf(sender);
    entry->blockedUntil(start + 60);
    entry->state(SenderRateControl::RateControlState::blocked);
}

TEST(MilterSession, RefusedAtItsEndOnlyTheInvalidRecipientsAreReported) {
    StandingMilterFixture milter;
    milter.session.sender("<jo@example.org>");
    EXPECT_FALSE(milter.session.recipient("<a@example.com>", {}));
    milter.session.recipient("<nobody@example.com>", {.refused = true, .refusalStatus = "5.1.1"});
    milter.session.header("X-Spam-Flag", "YES");
    block("jo@example.org");
    auto const ending = milter.session.messageEnded();
    ASSERT_TRUE(ending.refusal);
    EXPECT_EQ(std::string(ending.refusal->code) + ' ' + ending.refusal->status, "450 4.7.1");
    EXPECT_EQ(milter.reports.lines, Lines{"192.0.2.77 <jo@example.org> [] recipients=1 invalid=1 abandoned at 0"});
    milter.session.abandoned();
    EXPECT_EQ(milter.reports.lines.size(), 1U);
}

TEST(MilterSession, RefusedAtItsEndWithoutInvalidRecipientsNothingIsReported) {
    StandingMilterFixture milter;
    milter.session.sender("<jo@example.org>");
    EXPECT_FALSE(milter.session.recipient("<a@example.com>", {}));
    block("jo@example.org");
    EXPECT_TRUE(milter.session.messageEnded().refusal);
    milter.session.abandoned();
    EXPECT_EQ(milter.reports.lines, Lines{});
}

TEST(MilterSession, FrontThatDoesNotDecideOnlyCounts) {
    MilterFixture milter;
    MilterFrontSettings settings = frontSettings();
    settings.decide = false;
    milter.front.install(settings);
    milter.session.sender("<jo@example.org>");
    EXPECT_EQ(milter.recipient("<a@example.com>"), "");
    EXPECT_EQ(milter.session.messageEnded().header, std::nullopt);
    EXPECT_EQ(milter.logged(), Lines{});
    EXPECT_EQ(milter.tuples.sizeNoLock(), 0U);
    EXPECT_EQ(milter.reports.lines, Lines{"192.0.2.77 <jo@example.org> [] recipients=1 invalid=0 finished at 0"});
}

TEST(MilterSession, WhatCannotBeReadPassesWithAWarning) {
    MilterFixture milter;
    milter.session.sender("<jo@exa\x01mple.org>");
    EXPECT_EQ(milter.recipient("<a@example.com>"), "");
    EXPECT_EQ(milter.logged(),
              Lines{"action=pass, reason=incomplete, client_name=mx.example.org, client_address=192.0.2.77, "
                    "sender=\"jo@exa\\x01mple.org\", recipient=a@example.com, problem=\"sender is no mailbox\""});
    milter.session.sender("<jo@example.org>");
    EXPECT_EQ(milter.recipient("<>"), "");
    EXPECT_EQ(milter.logged(),
              Lines{"action=pass, reason=incomplete, client_name=mx.example.org, client_address=192.0.2.77, "
                    "sender=jo@example.org, recipient=\"\", problem=\"recipient is no mailbox\""});
}

TEST(MilterSession, MailOfThisMachineItselfPasses) {
    MilterFixture milter;
    MilterSession local(milter.front);
    local.connected("localhost", IPAddress());
    local.sender("<root@example.org>");
    EXPECT_FALSE(local.recipient("<a@example.com>", {}));
    local.messageEnded();
    EXPECT_EQ(milter.reports.lines, Lines{" <root@example.org> [] recipients=1 invalid=0 finished at 0"});
}

TEST(MilterSession, ClientOfAnIPv6SocketThatSpeaksIPv4IsTheSameOne) {
    MilterFixture milter;
    milter.session.connected("mx.example.org", IPAddress(std::string("::ffff:192.0.2.77")));
    milter.session.sender("<jo@example.org>");
    milter.recipient("<a@example.com>");
    EXPECT_NE(milter.logged().at(0).find("client_address=192.0.2.77,"), std::string::npos);
}

TEST(MilterSession, NameThatIsNoneIsUnknown) {
    for (char const* name : {"unknown", "[192.0.2.77]"}) {
        MilterFixture milter;
        milter.session.connected(name, IPAddress(std::string("192.0.2.77")));
        milter.session.sender("<jo@example.org>");
        milter.recipient("<a@example.com>");
        EXPECT_NE(milter.logged().at(0).find("client_name=unknown,"), std::string::npos) << name;
    }
}

TEST(MilterSession, RecipientOrHeaderOutsideOfATransactionIsNothing) {
    MilterFixture milter;
    EXPECT_EQ(milter.recipient("<a@example.com>"), "");
    milter.session.header("X-Spam-Flag", "YES");
    EXPECT_EQ(milter.session.messageEnded().header, std::nullopt);
    EXPECT_EQ(milter.reports.lines, Lines{});
}

} // namespace
} // namespace Vellum::Daemon
