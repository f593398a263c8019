#include "daemon/PolicyTranslator.h"

#include "tests/daemon/DecisionFixture.h"

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

namespace Vellum::Daemon {
namespace {

using Attributes = std::map<std::string, std::string>;

constexpr long start = 1795252757; // Sat, 21 Nov 2026 09:19:17 UTC
constexpr char const* dunno = "action=DUNNO\n\n";
constexpr char const* wait300 = "action=DEFER_IF_PERMIT 4.2.0 Greylisted, please try again in 300 seconds\n\n";

std::string header(long seconds, char const* date = "Sat, 21 Nov 2026 09:24:17 +0000") {
    return "action=PREPEND X-Greylist: delayed " + std::to_string(seconds) + " seconds by vellumd at mx.example.com; " +
           date + "\n\n";
}

Attributes someMail() {
    return {{"request", "smtpd_access_policy"},
            {"protocol_state", "RCPT"},
            {"client_address", "192.0.2.77"},
            {"client_name", "mx.example.org"},
            {"sender", "jo@example.org"},
            {"recipient", "me@example.com"},
            {"instance", "1.2.3"}};
}

// `base` with some attributes changed; those of an absent value are taken out.
Attributes with(Attributes base, std::map<std::string, char const*> const& changes) {
    for (auto const& [name, value] : changes) {
        if (value == nullptr) {
            base.erase(name);
        } else {
            base[name] = value;
        }
    }
    return base;
}

PolicyTranslatorSettings translatorSettings() {
    return {.texts = {.greylisted = "Greylisted, please try again in %SECONDS% seconds",
                      .senderBlocked = "Too much, wait %SECONDS% s",
                      .badReputation = "Bad reputation",
                      .endpointBlacklisted = "Not from this subscriber"},
            .header = true,
            .hostName = "mx.example.com",
            .logDecisions = true};
}

struct TranslatorFixture : DecisionFixture {
    explicit TranslatorFixture(DecisionSettings const& settings = {}) : DecisionFixture({}, settings) {}

    std::string ask(Attributes const& attributes, long time) { return ask(attributes, time, connection); }
    std::string ask(Attributes const& attributes, long time, PolicyConnectionMemory& memory) {
        std::string text;
        for (auto const& [name, value] : attributes) {
            text += name + '=' + value + '\n';
        }
        text += '\n';
        PolicyRequestParser parser;
        EXPECT_EQ(parser.parse(text), PolicyRequestParser::Outcome::complete);
        now = time;
        std::string out;
        translator.answer(parser.request(), memory, out);
        return out;
    }
    // The line of the one decision logged since the last call.
    std::string logged() {
        std::vector<std::string> const notes = log.notes();
        log.clear();
        return notes.size() == 1 ? notes.front() : std::to_string(notes.size()) + " lines";
    }

    long now = 0;
    PolicyConnectionMemory connection;
    PolicyTranslator translator{decision, translatorSettings(), [this] {
                                    return now;
                                }};
};

TEST(PolicyTranslator, MailWaitsPassesWithAHeaderAndIsKnown) {
    TranslatorFixture front;
    EXPECT_EQ(front.ask(someMail(), start), wait300);
    EXPECT_EQ(front.logged(), "action=greylist, reason=new, client_name=mx.example.org, client_address=192.0.2.77, "
                              "sender=jo@example.org, recipient=me@example.com, seconds_left=300");
    EXPECT_EQ(front.ask(someMail(), start + 299),
              "action=DEFER_IF_PERMIT 4.2.0 Greylisted, please try again in 1 seconds\n\n");
    EXPECT_EQ(front.logged(), "action=greylist, reason=early-retry, client_name=mx.example.org, "
                              "client_address=192.0.2.77, sender=jo@example.org, recipient=me@example.com, "
                              "seconds_left=1");
    EXPECT_EQ(front.ask(with(someMail(), {{"queue_id", "4BXy2k"}}), start + 300), header(300));
    EXPECT_EQ(front.logged(), "action=pass, reason=passed, client_name=mx.example.org, client_address=192.0.2.77, "
                              "sender=jo@example.org, recipient=me@example.com, delay=300, queue_id=4BXy2k");
    EXPECT_EQ(front.ask(with(someMail(), {{"instance", "1.2.4"}}), start + 301), dunno);
    EXPECT_EQ(front.logged(), "action=pass, reason=known, client_name=mx.example.org, client_address=192.0.2.77, "
                              "sender=jo@example.org, recipient=me@example.com");
}

TEST(PolicyTranslator, ClientOfAnIPv6SocketThatSpeaksIPv4IsTheSameOne) {
    TranslatorFixture front;
    EXPECT_EQ(front.ask(someMail(), start), wait300);
    EXPECT_EQ(front.ask(with(someMail(), {{"client_address", "::ffff:192.0.2.77"}}), start + 299),
              "action=DEFER_IF_PERMIT 4.2.0 Greylisted, please try again in 1 seconds\n\n");
}

TEST(PolicyTranslator, AMessageGetsOneHeaderHoweverManyRecipientsHadToWait) {
    TranslatorFixture front;
    Attributes const second = with(someMail(), {{"recipient", "you@example.com"}});
    front.ask(someMail(), start);
    front.ask(second, start);
    EXPECT_EQ(front.ask(someMail(), start + 300), header(300));
    EXPECT_EQ(front.ask(second, start + 300), dunno);
}

TEST(PolicyTranslator, TheHeaderIsOnceForAMessageOverManyConnections) {
    TranslatorFixture front;
    Attributes const second = with(someMail(), {{"recipient", "you@example.com"}});
    front.ask(someMail(), start);
    front.ask(second, start);
    PolicyConnectionMemory one;
    PolicyConnectionMemory other;
    EXPECT_EQ(front.ask(someMail(), start + 300, one), header(300));
    EXPECT_EQ(front.ask(second, start + 300, other), dunno);
}

TEST(PolicyTranslator, AnotherMessageOfTheConnectionGetsItsOwnHeader) {
    TranslatorFixture front;
    Attributes const second = with(someMail(), {{"recipient", "you@example.com"}, {"instance", "1.2.4"}});
    front.ask(someMail(), start);
    front.ask(second, start);
    EXPECT_EQ(front.ask(someMail(), start + 300), header(300));
    EXPECT_EQ(front.ask(second, start + 300), header(300));
}

TEST(PolicyTranslator, WithoutAnInstanceEachRecipientThatWaitedGetsTheHeader) {
    TranslatorFixture front;
    Attributes const first = with(someMail(), {{"instance", nullptr}});
    Attributes const second = with(first, {{"recipient", "you@example.com"}, {"instance", ""}});
    front.ask(first, start);
    front.ask(second, start);
    EXPECT_EQ(front.ask(first, start + 300), header(300));
    EXPECT_EQ(front.ask(second, start + 300), header(300));
}

TEST(PolicyTranslator, OnlyRecipientsAreDecided) {
    TranslatorFixture front;
    for (char const* state : {"CONNECT", "EHLO", "MAIL", "DATA", "END-OF-MESSAGE", "VRFY", "rcpt", ""}) {
        EXPECT_EQ(front.ask(with(someMail(), {{"protocol_state", state}}), start), dunno) << state;
    }
    EXPECT_EQ(front.ask(with(someMail(), {{"protocol_state", nullptr}}), start), dunno);
    EXPECT_EQ(front.ask(with(someMail(), {{"request", "junk"}}), start), dunno);
    EXPECT_EQ(front.ask(with(someMail(), {{"request", nullptr}}), start), dunno);
    EXPECT_TRUE(front.log.notes().empty());
    EXPECT_EQ(front.ask(someMail(), start), wait300) << "none of those was an attempt";
}

TEST(PolicyTranslator, WhatCannotBeDecidedPassesAndIsSaid) {
    struct Case {
        std::map<std::string, char const*> changes;
        char const* line;
    };
    std::string const tooLong = std::string(1025, 'x') + "@example.org";
    std::string const tooLongLine =
        "action=pass, reason=incomplete, client_name=mx.example.org, client_address=192.0.2.77, sender=" +
        std::string(1024, 'x') + "..., recipient=me@example.com, problem=\"sender is no mailbox\"";
    Case const cases[] = {
        {{{"client_address", nullptr}, {"client_name", nullptr}},
         "action=pass, reason=incomplete, client_name=unknown, client_address=\"\", sender=jo@example.org, "
         "recipient=me@example.com, problem=\"no client_address\""},
        {{{"client_address", "unknown"}, {"client_name", "unknown"}},
         "action=pass, reason=incomplete, client_name=unknown, client_address=unknown, sender=jo@example.org, "
         "recipient=me@example.com, problem=\"client_address is no IP address\""},
        {{{"recipient", ""}, {"queue_id", "4B"}},
         "action=pass, reason=incomplete, client_name=mx.example.org, client_address=192.0.2.77, "
         "sender=jo@example.org, recipient=\"\", problem=\"no recipient\", queue_id=4B"},
        {{{"recipient", nullptr}},
         "action=pass, reason=incomplete, client_name=mx.example.org, client_address=192.0.2.77, "
         "sender=jo@example.org, recipient=\"\", problem=\"no recipient\""},
        {{{"recipient", "<>"}},
         "action=pass, reason=incomplete, client_name=mx.example.org, client_address=192.0.2.77, "
         "sender=jo@example.org, recipient=<>, problem=\"no recipient\""},
        {{{"recipient", "a\tb@example.com"}},
         "action=pass, reason=incomplete, client_name=mx.example.org, client_address=192.0.2.77, "
         "sender=jo@example.org, recipient=\"a\\tb@example.com\", problem=\"recipient is no mailbox\""},
        {{{"sender", "\x01, client_address=127.0.0.1@example.org"}},
         "action=pass, reason=incomplete, client_name=mx.example.org, client_address=192.0.2.77, sender=\"\\x01, "
         "client_address=127.0.0.1@example.org\", recipient=me@example.com, problem=\"sender is no mailbox\""},
        {{{"sender", tooLong.c_str()}}, tooLongLine.c_str()},
    };
    TranslatorFixture front;
    PolicyTranslatorSettings quiet = translatorSettings();
    quiet.logDecisions = false;
    front.translator.install(quiet);
    front.log.clear();
    for (Case const& one : cases) {
        EXPECT_EQ(front.ask(with(someMail(), one.changes), start), dunno) << one.line;
        EXPECT_EQ(front.log.lines().size(), 1U) << "said though decisions are not logged";
        EXPECT_EQ(front.log.lines().at(0).severity, Logger::Severity::warning);
        EXPECT_EQ(front.logged(), one.line);
    }
    EXPECT_EQ(front.translator.counters().of(Verdict::Reason::incomplete), std::size(cases));
}

TEST(PolicyTranslator, AMissingSenderIsTheNullSender) {
    TranslatorFixture front;
    EXPECT_EQ(front.ask(with(someMail(), {{"sender", ""}}), start), wait300);
    EXPECT_EQ(front.logged(), "action=greylist, reason=new, client_name=mx.example.org, client_address=192.0.2.77, "
                              "sender=<>, recipient=me@example.com, seconds_left=300");
    EXPECT_EQ(front.ask(with(someMail(), {{"sender", nullptr}}), start + 1),
              "action=DEFER_IF_PERMIT 4.2.0 Greylisted, please try again in 299 seconds\n\n");
    EXPECT_EQ(front.ask(with(someMail(), {{"sender", "<>"}}), start + 300), header(300));
}

TEST(PolicyTranslator, AwkwardValuesForgeNothing) {
    TranslatorFixture front;
    EXPECT_EQ(front.ask(with(someMail(), {{"client_name", "a, action=pass"},
                                          {"sender", "j\xc3\xb6 \"x\"\\@example.org"},
                                          {"recipient", "m\xff=, sender=<>@example.com"},
                                          {"queue_id", "\x1b[2J"}}),
                        start),
              wait300);
    EXPECT_EQ(front.logged(), "action=greylist, reason=new, client_name=\"a, action=pass\", "
                              "client_address=192.0.2.77, sender=\"j\xc3\xb6 \\\"x\\\"\\\\@example.org\", "
                              "recipient=\"m\\xff=, sender=<>@example.com\", seconds_left=300, "
                              "queue_id=\"\\x1b[2J\"");
}

TEST(PolicyTranslator, AMailboxWithoutItsQuotesWaitsLikeAnyOther) {
    TranslatorFixture front;
    EXPECT_EQ(front.ask(with(someMail(), {{"sender", "jo doe@example.org"}}), start), wait300);
    EXPECT_EQ(front.ask(with(someMail(), {{"sender", "\"jo doe\"@example.org"}}), start + 300), header(300));
}

TEST(PolicyTranslator, AuthenticatedAndExemptMailNamesWhoAndWhy) {
    GreyList::RefExemptRuleSet rules("test");
    rules->add(GreyList::RefExemptRule(20, {}, {}, {}, StringPattern("*.partner.example")));
    TranslatorFixture front({.exemptRules = rules});
    EXPECT_EQ(front.ask(with(someMail(), {{"sasl_username", "jo, doe"}}), start), dunno);
    EXPECT_EQ(front.logged(), "action=pass, reason=authenticated, client_name=mx.example.org, "
                              "client_address=192.0.2.77, sender=jo@example.org, recipient=me@example.com, "
                              "user=\"jo, doe\"");
    EXPECT_EQ(front.ask(with(someMail(), {{"client_name", "mx.partner.example"}}), start), dunno);
    EXPECT_EQ(front.logged(), "action=pass, reason=exempt-rule, client_name=mx.partner.example, "
                              "client_address=192.0.2.77, sender=jo@example.org, recipient=me@example.com, rule=20");
    EXPECT_EQ(
        front.ask(with(someMail(), {{"client_name", "unknown"}, {"reverse_client_name", "mx.partner.example"}}), start),
        wait300)
        << "what an address claims of itself is not believed";
}

TEST(PolicyTranslator, EarnedAndUsedExemptionsAreLogged) {
    TranslatorFixture front({.autoExemptAfter = 1});
    front.ask(someMail(), start);
    front.log.clear();
    front.ask(someMail(), start + 300);
    EXPECT_EQ(front.log.notes().at(0), "event=auto-exempt-earned, network=192.0.2.0/24, domain=example.org, tuples=1");
    front.log.clear();
    EXPECT_EQ(front.ask(with(someMail(), {{"sender", "al@example.org"}}), start + 300), dunno);
    EXPECT_EQ(front.logged(), "action=pass, reason=auto-exempt, client_name=mx.example.org, "
                              "client_address=192.0.2.77, sender=al@example.org, recipient=me@example.com");
}

TEST(PolicyTranslator, SettingsHoldFromTheNextRequestOn) {
    TranslatorFixture front;
    front.ask(someMail(), start);
    front.log.clear();
    front.translator.install({.texts = {.greylisted = "%SECONDS%/%SECONDS% %",
                                        .senderBlocked = {},
                                        .badReputation = {},
                                        .endpointBlacklisted = {}},
                              .header = false,
                              .hostName = "x",
                              .logDecisions = false});
    EXPECT_EQ(front.ask(someMail(), start + 290), "action=DEFER_IF_PERMIT 4.2.0 10/10 %\n\n");
    EXPECT_EQ(front.ask(someMail(), start + 300), dunno) << "the header is switched off";
    EXPECT_TRUE(front.log.notes().empty());
}

TEST(PolicyTranslator, AnswersAreAppended) {
    TranslatorFixture front;
    std::string const text = "request=smtpd_access_policy\nprotocol_state=DATA\n\n";
    PolicyRequestParser parser;
    ASSERT_EQ(parser.parse(text), PolicyRequestParser::Outcome::complete);
    std::string out = "before";
    front.translator.answer(parser.request(), front.connection, out);
    EXPECT_EQ(out, "beforeaction=DUNNO\n\n");
}

TEST(PolicyTranslator, DecisionsAreCountedByReason) {
    TranslatorFixture front;
    front.ask(someMail(), start);
    front.ask(someMail(), start + 1);
    front.ask(someMail(), start + 2);
    front.ask(someMail(), start + 300);
    front.ask(with(someMail(), {{"protocol_state", "DATA"}}), start + 300);
    DecisionCounters const& counters = front.translator.counters();
    EXPECT_EQ(counters.of(Verdict::Reason::fresh), 1U);
    EXPECT_EQ(counters.of(Verdict::Reason::earlyRetry), 2U);
    EXPECT_EQ(counters.of(Verdict::Reason::passed), 1U);
    EXPECT_EQ(counters.of(Verdict::Reason::known), 0U);
}

TEST(PolicyTranslator, AMessageIsCountedOnceHoweverManyRecipientsItHas) {
    TranslatorFixture front;
    auto const ask = [&front](char const* instance) {
        front.ask(with(someMail(), {{"instance", instance}}), start);
        return front.translator.counters().messages();
    };
    EXPECT_EQ(ask("a"), 1U);
    EXPECT_EQ(ask("a"), 1U);
    EXPECT_EQ(ask("b"), 2U);
    EXPECT_EQ(ask(""), 3U) << "without an instance each recipient is taken for a message";
    EXPECT_EQ(ask(""), 4U);
    front.ask(with(someMail(), {{"instance", "c"}, {"protocol_state", "DATA"}}), start);
    EXPECT_EQ(front.translator.counters().messages(), 4U);
}

TEST(PolicyTranslator, SettingsComeFromTheDaemons) {
    Settings settings;
    settings.greylist.hostName = "mx.example.net";
    settings.greylist.header = false;
    settings.greylist.deferText = "later";
    settings.log.decisions = false;
    PolicyTranslatorSettings made = PolicyTranslatorSettings::of(settings);
    EXPECT_EQ(made.hostName, "mx.example.net");
    EXPECT_EQ(made.texts.greylisted, "later");
    EXPECT_FALSE(made.header);
    EXPECT_FALSE(made.logDecisions);
    settings.greylist.hostName = "";
    EXPECT_NE(PolicyTranslatorSettings::of(settings).hostName, "") << "the system's own";
}

} // namespace
} // namespace Vellum::Daemon
