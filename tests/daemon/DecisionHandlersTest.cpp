// explain, release and reset over the wire: replies and log lines whole.
#include "daemon/DecisionHandlers.h"

#include "tests/daemon/AdminClient.h"
#include "tests/daemon/DecisionFixture.h"
#include "tests/daemon/FamiliesFixture.h"

#include <gtest/gtest.h>

#include <atomic>

namespace Vellum::Daemon {
namespace {

using nlohmann::json;
using Lines = std::vector<std::string>;

class DecisionHandlers : public testing::Test, public FamiliesFixture, protected AdminClient {
  protected:
    DecisionHandlers() {
        addDecisionHandlers(
            m_decision, [this] { return m_now.load(); }, m_dispatcher);
        connect();
        m_log.clear();
    }
    ~DecisionHandlers() override { disconnect(); }

    static DecisionSettings settings() {
        DecisionSettings all;
        all.standing.rate = {.most = {9, 0, 0, 0, 0}, .strangers = true};
        all.standing.reputation.deferScore = 40;
        all.standing.reputation.rejectScore = 80;
        all.standing.endpoint.blockScore = 20;
        return all;
    }
    json explain(json const& request) { return ask(IPC::PduType::adminExplain, request); }
    json release(json const& request) { return ask(IPC::PduType::adminRelease, request); }
    json reset(std::string const& sender) { return ask(IPC::PduType::adminResetRate, {{"sender", sender}}); }
    static json verdict(char const* action, char const* reason, long secondsLeft, char const* stage) {
        return {{"action", action}, {"reason", reason}, {"seconds_left", secondsLeft}, {"stage", stage}};
    }
    // Scores 80.
    static void spoil(std::string const& client) { reputationOf(client)->add(start / 3600, {100, 100, 0, 0, 80}); }
    static void block(std::string const& sender, long until) {
        auto const entry = rateOf(sender);
        entry->increment(RateCounter::recipients, start / 300, 12);
        entry->blockedReason(RateCounter::recipients);
        entry->blockedUntil(until);
        entry->state(SenderRateControl::RateControlState::blocked);
    }

    std::atomic<long> m_now{start};
    bool m_configured = (installTimes({}), true); // before the caches, which read it
    GreyList::_TupleCache m_tuples;
    GreyList::_DynamicExemptCache m_exemptions;
    Standing m_standing{&subscribers};
    Decision m_decision{m_tuples, m_exemptions, settings(), &m_standing};
};

json counters(int messages, int recipients) {
    return {
        {"messages", messages}, {"recipients", recipients}, {"invalid_recipients", 0}, {"spam", 0}, {"infected", 0}};
}

json const mail{{"address", "192.0.2.1"}, {"sender", "jo@example.org"}, {"recipient", "me@example.com"}};

TEST_F(DecisionHandlers, ExplanationOfAStrangerIsWholeAndChangesNothing) {
    json asked = mail;
    asked["name"] = "mx.example.org";
    json const expected = {
        {"verdict", verdict("greylist", "new", 300, "recipient")},
        {"client",
         {{"address", "192.0.2.1"}, {"name", "mx.example.org"}, {"user", nullptr}, {"network", "192.0.2.0/24"}}},
        {"sender", "jo@example.org"},
        {"recipient", "me@example.com"},
        {"endpoint",
         {{"subscriber", nullptr},
          {"exempt", false},
          {"blacklisted", false},
          {"blacklisted_until", 0},
          {"score", 0},
          {"block_score", 20}}},
        {"rate",
         {{"sender", "jo@example.org"},
          {"known", false},
          {"block", nullptr},
          {"totals", counters(0, 0)},
          {"limits", counters(9, 0)}}},
        {"reputation",
         {{"known", false},
          {"score", 0},
          {"state", 0},
          {"last_modified", 0},
          {"defer_score", 40},
          {"reject_score", 80},
          {"hours", json::array()}}},
        {"rules", {{"count", 0}, {"match", nullptr}}},
        {"exemption", {{"possible", true}, {"until", 0}, {"after", 5}}},
        {"tuple", {{"situation", "new"}, {"first_seen", 0}, {"pass_time", 0}, {"expiry", 0}}}};
    EXPECT_EQ(explain(asked), expected);
    EXPECT_EQ(explain(asked), expected);
    EXPECT_EQ(m_tuples.sizeNoLock(), 0U);
    EXPECT_EQ(SenderRateControl::sizeOf(rates()), 0U);
    EXPECT_EQ(logged(), Lines{});
}

TEST_F(DecisionHandlers, ExplanationHasEveryFactOfSomebodyWellKnown) {
    learn("192.0.2.1", "15555550100");
    spoil("192.0.2.1");
    reputationOf("192.0.2.1")->add(start / 3600 - 1, {10, 20, 0, 0, 0});
    block("jo@example.org", start + 60);
    m_decision.atRecipient(message("192.0.2.1", "al@example.org", "me@example.com"), start - 100);
    json const all = explain({{"address", "192.0.2.1"},
                              {"sender", "jo@example.org"},
                              {"recipient", "me@example.com"},
                              {"user", "jo@example.org"}});
    EXPECT_EQ(all.at("verdict"), verdict("defer", "sender-blocked", 60, "recipient"));
    EXPECT_EQ(all.at("client").at("user"), "jo@example.org");
    EXPECT_EQ(all.at("endpoint").at("subscriber"), "15555550100");
    EXPECT_EQ(all.at("rate"), json({{"sender", "jo@example.org"},
                                    {"known", true},
                                    {"block", {{"until", start + 60}, {"counter", "recipients"}}},
                                    {"totals", counters(0, 12)},
                                    {"limits", counters(9, 0)}}));
    constexpr long hour = start / 3600 * 3600;
    json const counted = {{"messages", 100}, {"recipients", 100}, {"invalid_recipients", 0},
                          {"spam", 80},      {"infected", 0},     {"score", 80},
                          {"start", hour}};
    json const before = {{"messages", 10}, {"recipients", 20}, {"invalid_recipients", 0}, {"spam", 0},
                         {"infected", 0},  {"score", 0},       {"start", hour - 3600}};
    EXPECT_EQ(all.at("reputation").at("hours"), json::array({before, counted}));
    EXPECT_EQ(all.at("reputation").at("known"), true);
    EXPECT_EQ(all.at("reputation").at("last_modified"), reputationOf("192.0.2.1")->lastModified());
}

TEST_F(DecisionHandlers, WithoutARecipientTheVerdictIsThatOfClientAndSender) {
    json const senderOnly = {{"address", "192.0.2.1"}, {"sender", "jo@example.org"}};
    EXPECT_EQ(explain(senderOnly).at("verdict"), verdict("pass", "incomplete", 0, "sender"));
    block("jo@example.org", start + 60);
    json const blocked = explain(senderOnly);
    EXPECT_EQ(blocked.at("verdict"), verdict("defer", "sender-blocked", 60, "sender"));
    EXPECT_EQ(blocked.at("recipient"), nullptr);
    spoil("192.0.2.2");
    EXPECT_EQ(explain({{"address", "192.0.2.2"}, {"sender", "<>"}}).at("verdict"),
              verdict("reject", "bad-reputation", 0, "sender"));
}

TEST_F(DecisionHandlers, WithoutASenderTheVerdictIsThatOfTheClient) {
    learn("192.0.2.4", "15555550100"); // first of all: asking looks an address up, and what is found then stays
    json const clientOnly = {{"address", "192.0.2.1"}};
    json const nothing = explain(clientOnly);
    EXPECT_EQ(nothing.at("verdict"), verdict("pass", "incomplete", 0, "connect"));
    EXPECT_EQ(nothing.at("sender"), nullptr);
    spoil("192.0.2.1");
    EXPECT_EQ(explain(clientOnly).at("verdict"), verdict("reject", "bad-reputation", 0, "connect"));
    spoil("192.0.2.4");
    MMSReputation::RefCache::instance(nullptr, 0)->blacklist(MSISDN(std::string("15555550100")));
    EXPECT_EQ(explain({{"address", "192.0.2.4"}}).at("verdict"),
              verdict("reject", "endpoint-blacklisted", 0, "connect"));
    block("jo@example.org", start + 60);
    EXPECT_EQ(explain({{"address", "192.0.2.3"}, {"user", "jo@example.org"}}).at("verdict"),
              verdict("defer", "sender-blocked", 60, "connect"))
        << "who has logged in is the sender";
}

TEST_F(DecisionHandlers, AddressOfAnIPv6SocketThatSpeaksIPv4IsTheSameClient) {
    json const answer = explain({{"address", "::ffff:192.0.2.1"}});
    EXPECT_EQ(answer.at("client").at("address"), "192.0.2.1");
}

TEST_F(DecisionHandlers, ReleaseAnswersTheTupleAndLeavesALine) {
    json const tuple = {{"network", "192.0.2.0/24"}, {"sender", "jo@example.org"}, {"recipient", "me@example.com"}};
    json released = tuple;
    released["released"] = true;
    released["verdict"] = verdict("pass", "passed", 0, "recipient");
    EXPECT_EQ(release(mail), released);
    EXPECT_EQ(logged(), Lines{"administration: greylist release of 192.0.2.0/24 jo@example.org me@example.com"});
    EXPECT_EQ(explain(mail).at("verdict"), verdict("pass", "passed", 0, "recipient"));
    json again = tuple;
    again["released"] = false;
    again["verdict"] = verdict("pass", "passed", 0, "recipient");
    EXPECT_EQ(release(mail), again);
    EXPECT_EQ(logged(),
              Lines{"administration: greylist release of 192.0.2.0/24 jo@example.org me@example.com: it passes "
                    "already, nothing was changed"});
    json bounce = mail;
    bounce["sender"] = "<>";
    EXPECT_EQ(release(bounce), json({{"network", "192.0.2.0/24"},
                                     {"sender", "<>"},
                                     {"recipient", "me@example.com"},
                                     {"released", true},
                                     {"verdict", verdict("pass", "passed", 0, "recipient")}}));
}

TEST_F(DecisionHandlers, ReleaseTellsWhatElseHoldsTheMessage) {
    block("jo@example.org", start + 60);
    json const held = verdict("defer", "sender-blocked", 60, "recipient");
    json const first = release(mail);
    EXPECT_EQ(first.at("released"), true);
    EXPECT_EQ(first.at("verdict"), held);
    EXPECT_EQ(logged(), Lines{"administration: greylist release of 192.0.2.0/24 jo@example.org me@example.com: "
                              "something else holds it: sender-blocked"});
    json const again = release(mail);
    EXPECT_EQ(again.at("released"), false);
    EXPECT_EQ(again.at("verdict"), held);
    EXPECT_EQ(logged(), Lines{"administration: greylist release of 192.0.2.0/24 jo@example.org me@example.com: it "
                              "passes already, nothing was changed; something else holds it: sender-blocked"});
}

TEST_F(DecisionHandlers, ResetAnswersWhatWasThereAndLeavesALine) {
    EXPECT_EQ(reset("al@example.org"),
              json({{"sender", "al@example.org"}, {"known", false}, {"was_blocked", false}, {"forgotten_periods", 0}}));
    EXPECT_EQ(logged(), Lines{"administration: rate reset of al@example.org: there is no such sender"});
    EXPECT_EQ(SenderRateControl::sizeOf(rates()), 0U);
    block("jo@example.org", start + 60);
    EXPECT_EQ(reset("jo@example.org"),
              json({{"sender", "jo@example.org"}, {"known", true}, {"was_blocked", true}, {"forgotten_periods", 1}}));
    EXPECT_EQ(logged(),
              Lines{"administration: rate reset of jo@example.org: the block is lifted, periods forgotten: 1"});
    EXPECT_EQ(explain(mail).at("rate").at("totals"), counters(0, 0));
    EXPECT_EQ(explain(mail).at("verdict").at("reason"), "new");
    EXPECT_EQ(reset("jo@example.org"),
              json({{"sender", "jo@example.org"}, {"known", true}, {"was_blocked", false}, {"forgotten_periods", 0}}));
    EXPECT_EQ(logged(),
              Lines{"administration: rate reset of jo@example.org: it was not blocked, periods forgotten: 0"});
}

TEST_F(DecisionHandlers, ResetFindsASenderInWhateverCaseItIsWritten) {
    for (auto const& [written, known] :
         std::vector<std::pair<std::string, std::string>>{{"Jo@Example.ORG", "Jo@example.org"}, // an envelope's
                                                          {"AL@Example.ORG", "al@example.org"}, // a login
                                                          {"Bob", "bob"}}) {
        block(known, start + 60);
        EXPECT_EQ(reset(written),
                  json({{"sender", known}, {"known", true}, {"was_blocked", true}, {"forgotten_periods", 1}}));
    }
    block("AL@Example.ORG", start + 60);
    EXPECT_EQ(reset("AL@Example.ORG").at("sender"), "AL@Example.ORG") << "the most exact one first";
    EXPECT_EQ(reset("IM@Example.ORG").at("sender"), "IM@Example.ORG") << "nothing is known: as it was written";
}

TEST_F(DecisionHandlers, WhatCannotBeReadIsRefusedInWordsAndLogged) {
    struct Case {
        IPC::PduType type;
        json request;
        std::string name;
        std::string problem;
    };
    for (Case const& one : std::vector<Case>{
             {IPC::PduType::adminExplain, json::object(), "explain", "the request needs \"address\", a text"},
             {IPC::PduType::adminExplain, {{"address", 7}}, "explain", "the request needs \"address\", a text"},
             {IPC::PduType::adminExplain, {{"address", "x"}}, "explain", "\"address\" is no IP address: \"x\""},
             {IPC::PduType::adminExplain,
              {{"address", "192.0.2.1"}, {"sender", "a\nb"}},
              "explain",
              "\"sender\" is no mailbox: \"a\\nb\""},
             {IPC::PduType::adminRelease,
              {{"address", "192.0.2.1"}, {"sender", "a@b"}},
              "release",
              "the request needs \"recipient\", a text"},
             {IPC::PduType::adminRelease,
              {{"address", "192.0.2.1"}, {"sender", "a@b"}, {"recipient", "<>"}},
              "release",
              "\"recipient\" is empty"},
             {IPC::PduType::adminResetRate, json::object(), "rate reset", "the request needs \"sender\", a text"},
             {IPC::PduType::adminResetRate, {{"sender", ""}}, "rate reset", "\"sender\" is no mailbox: \"\""}}) {
        EXPECT_EQ(ask(one.type, one.request), json({{"error", one.problem}})) << one.request;
        EXPECT_EQ(logged(), Lines{"administration: " + one.name + " refused or failed: " + one.problem});
    }
    EXPECT_EQ(m_tuples.sizeNoLock(), 0U);
}

} // namespace
} // namespace Vellum::Daemon
