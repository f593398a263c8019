// Awkward records from the caches through a script and the tables and back: each is there again, byte by byte, and none
// spoils another.
#include "tests/support/GreylistTables.h"

#include "foundation/Exception.h"
#include "greylist/CronJobBackup.h"
#include "tests/support/FakeDatabaseDaemon.h"
#include "tests/support/RandomSource.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>

namespace Vellum::GreyList {
namespace {

using testing::HasSubstr;
using testing::IsEmpty;

class RoundTripTest : public GreylistTables {
  protected:
    // A tuple as mail brings it: everything passes the parser.
    void add(std::string const& network, std::string const& sender, std::string const& recipient, long firstSeen = 1000,
             long expiry = 2000) {
        m_tuples.add(TupleId(IPAddressMask(network), EmailAddress::rfc5321Parse(sender, false),
                             EmailAddress::rfc5321Parse(recipient, false)),
                     Status(firstSeen, expiry, 0));
    }
    void add(std::string const& network, std::string const& domain) {
        m_exemptions.add(exemption(network, domain), Status(1000, 2000, 0));
    }

    // Backup, restore, restart, load.
    void goRound() {
        FakeDatabaseDaemon const daemon;
        ASSERT_TRUE(GlRecordDatabase(address()).write());
        ASSERT_EQ(restoreEntries(scriptPath().c_str()), 0);
        m_tuples.clear();
        m_exemptions.clear();
        read();
        ASSERT_THAT(m_log.records(0x300019D), IsEmpty());
        ASSERT_TRUE(LoadReport::last().complete()) << LoadReport::last().tuples.problem;
    }
    void expectSameAfterGoingRound() {
        Rows const tuples = tuplesHeld();
        Rows const exemptions = exemptionsHeld();
        ASSERT_NO_FATAL_FAILURE(goRound());
        EXPECT_EQ(tuplesHeld(), tuples);
        EXPECT_EQ(exemptionsHeld(), exemptions);
        EXPECT_TRUE(m_log.lines().empty());
    }
};

TEST_F(RoundTripTest, AwkwardTuplesComeBackAsTheyWere) {
    std::string const network = "192.0.2.0/24";
    add(network, "<>", "c@d");
    add(network, "c@d", "<>");
    add(network, "john@example.org", "c@d");
    add(network, "John@example.org", "c@d");
    add(network, "john@Example.org", "c@d");
    add(network, "\"john \"@example.org", "c@d");
    add(network, "\"john\"@example.org", "c@d");
    add(network, "\"john  \"@example.org", "c@d");
    add(network, "\" john\"@example.org", "c@d");
    add(network, "o'neil@example.org", "c@d");
    add(network, "\"quo\\\"ted\"@example.org", "c@d");
    add(network, "\"back\\\\slash\"@example.org", "c@d");
    add(network, "ends\\@example.org", "c@d");
    add(network, "'", "''");
    add(network, "\"'); drop table grey_list; --\"@example.org", "c@d");
    add(network, "100%@example.org", "%s%n%d@example.org");
    add(network, "under_score@example.org", "c@d");
    add(network, "user%relay@example.org", "c@d");
    add(network,
        "gr\xc3\xbc\xc3\x9f"
        "e@example.org",
        "\xe4\xb8\xad\xe6\x96\x87@example.org");
    add(network, "caf\xc3\xa9@example.org", "c@d");
    add(network, "cafe\xcc\x81@example.org", "c@d"); // the same letter in two characters
    add(network, "\xff\xfe@example.org", "\x80@example.org");
    add(network, "\xf0\x9f\x93\xac@example.org", "c@d");
    add(network, "root", "postmaster");
    add(network, "..dots..@example.org", "a@b..c");
    add(network, "#;`@example.org", "--@example.org");
    std::string const longest = std::string(116, 'x') + "@example.org";
    ASSERT_EQ(longest.size(), 128U);
    add(network, longest, longest);
    std::string longestTwin = longest;
    longestTwin[0] = 'X';
    add(network, longestTwin, longest);
    add(network, std::string(116, '\'') + "@example.org", "c@d");
    add(network, std::string(116, '\xff') + "@example.org", "c@d");
    EXPECT_EQ(sizeOf(m_tuples), 30U) << "all of them differ";
    expectSameAfterGoingRound();
}

TEST_F(RoundTripTest, NetworksAndTimesComeBackAsTheyWere) {
    for (char const* const network :
         {"192.0.2.0/24", "192.0.2.0/25", "192.0.2.77/24", "192.0.2.77/32", "0.0.0.0/0", "255.255.255.255/32",
          "2001:db8::/64", "2001:db8::1/64", "::/0", "::1/128", "::ffff:192.0.2.0/120", "::192.0.2.0/120", "/64",
          "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff/128"}) {
        add(network, "a@b", "c@d");
        add(network, "example.org");
    }
    add("192.0.2.0/24", "zero@b", "c@d", 0, 0);
    add("192.0.2.0/24", "negative@b", "c@d", -5, -2147483648L);
    add("192.0.2.0/24", "last@b", "c@d", 2147483647L, 2147483647L);
    expectSameAfterGoingRound();
}

TEST_F(RoundTripTest, AwkwardDomainsComeBackAsTheyWere) {
    for (char const* const domain :
         {"example.org", "Example.org", "example.org ", "example.org  ", " example.org", "caf\xc3\xa9.example",
          "\xff\x80.example", "100%", "%s", "a`b", "a;b--", "#", "[192.0.2.1]", "<>"}) {
        add("192.0.2.0/24", domain);
        add("198.51.100.0/24", domain);
    }
    add("192.0.2.0/24", std::string(128, 'd'));
    add("192.0.2.0/24", std::string(127, 'd') + 'D');
    EXPECT_EQ(sizeOf(m_exemptions), 30U);
    expectSameAfterGoingRound();
}

TEST_F(RoundTripTest, RecordsThatCannotBeStoredAreLeftOutAndSpoilNothing) {
    add("192.0.2.0/24", "a@b", "c@d");
    add("192.0.2.0/24", "example.org");
    Rows const tuples = tuplesHeld();
    Rows const exemptions = exemptionsHeld();
    std::string const beginning(128, 'x');
    add("192.0.2.0/24", beginning + "1@example.org", "c@d"); // these two agree in all that a column holds
    add("192.0.2.0/24", beginning + "2@example.org", "c@d");
    add("192.0.2.0/24", "a@b", std::string(320, 'y'));
    m_tuples.add(tuple("", "a@b", "c@d"), Status(1000, 2000, 0));
    add("192.0.2.0/24", "it's.example");
    add("192.0.2.0/24", std::string(129, 'd'));
    add("", "example.org");
    ASSERT_NO_FATAL_FAILURE(goRound());
    EXPECT_EQ(tuplesHeld(), tuples);
    EXPECT_EQ(exemptionsHeld(), exemptions);
    EXPECT_EQ(m_log.records(0x3000199).size(), 7U);
}

TEST_F(RoundTripTest, TimesBeyondTheColumnsComeBackAsTheirEnds) {
    add("192.0.2.0/24", "a@b", "c@d", 4102444800L, 9999999999L);
    ASSERT_NO_FATAL_FAILURE(goRound());
    EXPECT_THAT(tuplesHeld(), testing::ElementsAre("192.0.2.0/24 a@b c@d 2147483647 2147483647 0"));
}

TEST_F(RoundTripTest, ControlCharactersNeverGetThatFar) {
    for (std::string const& text : {std::string("a\x01@b"), std::string("a@b\n"), std::string("a\0@b", 4),
                                    std::string("\"a\x7f\"@b"), std::string("\"\r\n\"@b")}) {
        EXPECT_THROW(EmailAddress::rfc5321Parse(text, false), Exception);
    }
}

TEST_F(RoundTripTest, AnythingThatTheParserTakesComesBack) {
    RandomSource random;
    std::vector<std::string> const pieces = {
        "a",    "A",  "'",           "\"",      "\\",  "%",  "_", ";", "`",   "\xc3\xa9", "\x80",
        "\xff", "@",  " ",           "(",       ")",   "--", "#", "?", "\\'", ".",        "\xe2\x80\xa8",
        "/*",   "*/", "b@c.example", "\"q \"@", "\\\\"};
    std::set<std::string> taken;
    while (taken.size() < 1500) {
        std::string text;
        for (std::size_t count = 1 + random.below(8); count > 0; --count) {
            text += random.of(pieces);
        }
        try {
            std::string const sender = EmailAddress::rfc5321Parse(text, false).address();
            add("192.0.2.0/24", sender, "c@d");
            taken.insert(sender);
        } catch (Exception const&) {
            // not a mailbox
        }
    }
    EXPECT_EQ(sizeOf(m_tuples), taken.size());
    expectSameAfterGoingRound();
}

TEST_F(RoundTripTest, ThousandsOfTuplesComeBack) {
    for (unsigned int n = 0; n < 3001; ++n) {
        m_tuples.add(tuple(n), Status(n, n + 1, 0));
        m_exemptions.add(exemption(n), Status(n, n + 1, 0));
    }
    expectSameAfterGoingRound();
}

TEST_F(RoundTripTest, FirstPassOfATupleThatWaitedThroughARestartIsTold) {
    TupleId const waiting = tuple("192.0.2.0/24", "waiting@b", "c@d");
    TupleId const passed = tuple("192.0.2.0/24", "passed@b", "c@d");
    m_tuples.state(waiting, 1700000000);
    m_tuples.state(passed, 1700000000);
    ASSERT_EQ(m_tuples.state(passed, 1700000300), 1);
    ASSERT_NO_FATAL_FAILURE(goRound());
    EXPECT_TRUE(m_tuples.decide(waiting, 1700000300).firstPass);
    EXPECT_FALSE(m_tuples.decide(passed, 1700000300).firstPass);
    EXPECT_TRUE(m_tuples.decide(passed, 1700000300).passed());
}

} // namespace
} // namespace Vellum::GreyList
