#include "daemon/DecisionLog.h"
#include "daemon/GreylistHeader.h"

#include <gtest/gtest.h>

namespace Vellum::Daemon {
namespace {

TEST(Verdict, EveryReasonHasItsTextAndAction) {
    std::string all;
    for (unsigned int i = 0; i < reasonCount; ++i) {
        auto const reason = static_cast<Verdict::Reason>(i);
        all += std::string(reasonText(reason)) + ' ' + std::string(actionText(actionOf(reason), reason)) + '\n';
    }
    EXPECT_EQ(all, "incomplete pass\nauthenticated pass\ndisabled pass\nexempt-rule pass\nauto-exempt pass\n"
                   "new greylist\nrestarted greylist\nearly-retry greylist\npassed pass\nknown pass\n"
                   "endpoint-blacklisted defer\nendpoint-exempt pass\nsender-blocked defer\nbad-reputation defer\n");
    EXPECT_EQ(actionText(Verdict::Action::reject, Verdict::Reason::badReputation), "reject");
    EXPECT_EQ(actionText(Verdict::Action::pass, Verdict::Reason::known), "pass");
}

std::string lineOf(Verdict const& verdict, DecisionLogFacts const& facts = {}) {
    std::string line;
    appendDecision(line, verdict, facts);
    return line;
}

TEST(DecisionLog, WhatIsHeldAgainstAMessageIsTold) {
    std::string const middle = "client_name=unknown, client_address=\"\", sender=<>, recipient=\"\"";
    Verdict verdict;
    verdict.action = Verdict::Action::reject;
    verdict.reason = Verdict::Reason::badReputation;
    verdict.score = 85;
    EXPECT_EQ(lineOf(verdict), "action=reject, reason=bad-reputation, " + middle + ", score=85");
    verdict.action = Verdict::Action::defer;
    verdict.reason = Verdict::Reason::senderBlocked;
    verdict.secondsLeft = 90;
    verdict.counter = 2;
    EXPECT_EQ(lineOf(verdict, {.authenticatedUser = "jo"}),
              "action=defer, reason=sender-blocked, " + middle + ", seconds_left=90, counter=recipients, user=jo");
    verdict.reason = Verdict::Reason::endpointBlacklisted;
    verdict.subscriber = MSISDN(std::string("15555550100"));
    EXPECT_EQ(lineOf(verdict), "action=defer, reason=endpoint-blacklisted, " + middle + ", subscriber=15555550100");
}

TEST(DecisionLog, NothingKnownIsStillALine) {
    std::string line = "x: ";
    appendDecision(line, {}, {});
    EXPECT_EQ(line, "x: action=pass, reason=incomplete, client_name=unknown, client_address=\"\", sender=<>, "
                    "recipient=\"\"");
}

TEST(DecisionLog, LongValuesAreCut) {
    std::string const exact(1024, 'h');
    std::string line;
    appendDecision(line, {}, {.clientName = exact});
    EXPECT_NE(line.find("client_name=" + exact + ", "), std::string::npos);
    line.clear();
    std::string const longer(1025, 'h');
    appendDecision(line, {}, {.clientName = longer});
    EXPECT_NE(line.find("client_name=" + exact + "..., "), std::string::npos);
}

TEST(GreylistHeader, DatesAreInUtcAndEnglish) {
    auto const date = [](long time) {
        std::string out;
        appendMailDate(out, time);
        return out;
    };
    EXPECT_EQ(date(0), "Thu, 01 Jan 1970 00:00:00 +0000");
    EXPECT_EQ(date(951782399), "Mon, 28 Feb 2000 23:59:59 +0000");
    EXPECT_EQ(date(951782400), "Tue, 29 Feb 2000 00:00:00 +0000");
    EXPECT_EQ(date(1795252757), "Sat, 21 Nov 2026 09:19:17 +0000");
    EXPECT_EQ(date(4102444800), "Fri, 01 Jan 2100 00:00:00 +0000");
}

TEST(GreylistHeader, IsOneLine) {
    std::string out;
    appendGreylistHeader(out, 61, "mx.example.com", 0);
    EXPECT_EQ(out, "X-Greylist: delayed 61 seconds by vellumd at mx.example.com; Thu, 01 Jan 1970 00:00:00 +0000");
}

} // namespace
} // namespace Vellum::Daemon
