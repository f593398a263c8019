#include "daemon/ExemptRules.h"

#include "foundation/Settings.h"
#include "tests/daemon/SettingsRefusal.h"
#include "tests/support/TemporaryDirectory.h"

#include <gtest/gtest.h>

#include <fstream>
#include <string>

namespace Vellum::Daemon {
namespace {

GreyList::RefExemptRuleSet parse(std::string const& text, std::uint32_t most = 100) {
    return parseExemptRules(text, "rules.toml", most);
}

std::string errorOf(std::string const& text, std::uint32_t most = 100) {
    return refusalOf([&] { parse(text, most); });
}

// The id of the rule that matches, 0 when none does.
unsigned int match(GreyList::RefExemptRuleSet const& rules, std::string const& sender, std::string const& recipient,
                   std::string const& client, std::string const& name = "") {
    EmailAddress const from = EmailAddress::fromAddress(sender);
    EmailAddress const to = EmailAddress::fromAddress(recipient);
    IPAddress const address(client);
    HostName const host(name);
    GreyList::RefExemptRule const& rule = rules->find(GreyList::ExemptRuleSet::Filter(from, to, address, host));
    return rule.isNull() ? 0 : rule->id();
}

TEST(ExemptRules, AFileWithoutRulesIsASetWithoutRules) {
    EXPECT_TRUE(parse("")->rules().empty());
    EXPECT_TRUE(parse("# nothing yet\n")->rules().empty());
}

TEST(ExemptRules, EachConditionAloneMakesARule) {
    GreyList::RefExemptRuleSet const rules = parse(R"(
[[rule]]
id = 4
sender = "*@a.example"
comment = "the first in the file, and the last by its id"
[[rule]]
id = 3
recipient = "/^post/"
[[rule]]
id = 2
client = "192.0.2.0/24"
[[rule]]
id = 1
reverse_dns = "*.b.example"
)");
    EXPECT_EQ(match(rules, "jo@A.example", "me@c.example", "198.51.100.1"), 4U);
    EXPECT_EQ(match(rules, "jo@c.example", "Postmaster@c.example", "198.51.100.1"), 3U);
    EXPECT_EQ(match(rules, "jo@a.example", "postmaster@c.example", "192.0.2.1"), 2U);
    EXPECT_EQ(match(rules, "jo@a.example", "me@c.example", "192.0.2.1", "mx.b.example"), 1U);
    EXPECT_EQ(match(rules, "jo@c.example", "me@c.example", "192.0.3.1", "mx.c.example"), 0U);
}

TEST(ExemptRules, AllConditionsOfARuleMustHold) {
    GreyList::RefExemptRuleSet const rules = parse(R"(
rule = [{id = 4294967295, sender = "*@a.example", recipient = "me@*", client = "2001:db8::/32", reverse_dns = "*"}]
)");
    EXPECT_EQ(match(rules, "jo@a.example", "me@c.example", "2001:db8::1"), 4294967295U);
    EXPECT_EQ(match(rules, "jo@b.example", "me@c.example", "2001:db8::1"), 0U);
    EXPECT_EQ(match(rules, "jo@a.example", "us@c.example", "2001:db8::1"), 0U);
    EXPECT_EQ(match(rules, "jo@a.example", "me@c.example", "2001:db9::1"), 0U);
}

TEST(ExemptRules, AClientMayBeOneAddress) {
    GreyList::RefExemptRuleSet const rules = parse("[[rule]]\nid = 1\nclient = \"192.0.2.7\"\n");
    EXPECT_EQ(match(rules, "", "me@c.example", "192.0.2.7"), 1U);
    EXPECT_EQ(match(rules, "", "me@c.example", "192.0.2.8"), 0U);
}

TEST(ExemptRules, NetworkOfMappedAddressesIsThatOfIPv4) {
    GreyList::RefExemptRuleSet const rules = parse(
        "[[rule]]\nid = 1\nclient = \"::ffff:192.0.2.0/120\"\n[[rule]]\nid = 2\nclient = \"::ffff:198.51.100.7\"\n");
    EXPECT_EQ(match(rules, "", "me@c.example", "192.0.2.255"), 1U);
    EXPECT_EQ(match(rules, "", "me@c.example", "192.0.3.0"), 0U);
    EXPECT_EQ(match(rules, "", "me@c.example", "198.51.100.7"), 2U);
    EXPECT_EQ(match(parse("[[rule]]\nid = 1\nclient = \"::ffff:0:0/96\"\n"), "", "me@c.example", "203.0.113.1"), 1U);
    EXPECT_EQ(match(parse("[[rule]]\nid = 1\nclient = \"::fffe:0:0/95\"\n"), "", "me@c.example", "203.0.113.1"), 0U);
}

TEST(ExemptRules, MistakesAreToldWithTheirLine) {
    struct Case {
        char const* text;
        char const* error;
    };
    Case const cases[] = {
        {"[[rule]]\nid = 1\nsendr = \"*@a.example\"\nclient = \"192.0.2.0/24\"\n",
         "rules.toml:3: [rule] unknown key \"sendr\": expected client, comment, id, recipient, reverse_dns, sender"},
        {"[[rules]]\nid = 1\n", "rules.toml:1: unknown key \"rules\": expected rule"},
        {"[[rule]]\nsender = \"*\"\n", "rules.toml:1: [rule] id is missing: expected a whole number, 1 to 4294967295"},
        {"[[rule]]\nid = 0\nsender = \"*\"\n", "rules.toml:2: [rule] id = 0: expected 1 to 4294967295"},
        {"[[rule]]\nid = 4294967296\nsender = \"*\"\n",
         "rules.toml:2: [rule] id = 4294967296: expected 1 to 4294967295"},
        {"[[rule]]\nid = \"1\"\nsender = \"*\"\n",
         "rules.toml:2: [rule] id = \"1\": expected a whole number, 1 to 4294967295"},
        {"[[rule]]\nid = 1\nsender = \"*\"\n\n[[rule]]\nid = 1\nclient = \"192.0.2.1\"\n",
         "rules.toml:6: [rule] id = 1: expected an id of its own; the rule in line 1 has this one"},
        {"[[rule]]\nid = 7\ncomment = \"later\"\n",
         "rules.toml:1: [rule] rule 7 has no condition: expected at least one of sender, recipient, client, "
         "reverse_dns"},
        {"[[rule]]\nid = 7\nsender = \"\"\n",
         "rules.toml:3: [rule] sender = \"\": expected a pattern; leave the key out to match everything"},
        {"[[rule]]\nid = 7\nsender = \"/(/\"\n",
         "rules.toml:3: [rule] sender = \"/(/\": expected wildcards (* and ?) or /expression/: \"/(/\" is not a "
         "pattern: missing ): ("},
        {"[[rule]]\nid = 7\nsender = 7\n", "rules.toml:3: [rule] sender = 7: expected a text in quotes"},
        {"[[rule]]\nid = 7\nclient = \"192.0.2.0/33\"\n",
         "rules.toml:3: [rule] client = \"192.0.2.0/33\": expected an address or a network, as 192.0.2.1, "
         "192.0.2.0/24 or 2001:db8::/32"},
        {"[[rule]]\nid = 7\nclient = \"\"\n", "rules.toml:3: [rule] client = \"\": expected an address or a network, "
                                              "as 192.0.2.1, 192.0.2.0/24 or 2001:db8::/32"},
        {"[[rule]]\nid = 7\nclient = \"/24\"\n",
         "rules.toml:3: [rule] client = \"/24\": expected an address or a network, as 192.0.2.1, 192.0.2.0/24 or "
         "2001:db8::/32"},
        {"[[rule]]\nid = 7\nclient = \"192.0.2.7/24\"\n",
         "rules.toml:3: [rule] client = \"192.0.2.7/24\": expected 192.0.2.0/24 for the network, or 192.0.2.7 for the "
         "one address"},
        {"rule = 1\n", "rules.toml:1: rule = 1: expected tables, each [[rule]]"},
    };
    for (Case const& one : cases) {
        EXPECT_EQ(errorOf(one.text), one.error);
    }
}

TEST(ExemptRules, OneRuleBeyondTheLimitIsRefused) {
    std::string const two = "[[rule]]\nid = 1\nsender = \"a\"\n[[rule]]\nid = 2\nsender = \"b\"\n";
    EXPECT_EQ(parse(two, 2)->rules().size(), 2U);
    EXPECT_EQ(errorOf(two, 1),
              "rules.toml:4: [rule] rule 2 is one too many: expected at most 1, a hundredth of max_records");
    EXPECT_EQ(parse("", 0)->rules().size(), 0U);
}

TEST(ExemptRules, TheyAreReadFromAFile) {
    TemporaryDirectory const directory;
    std::string const path = directory.path() + "/rules.toml";
    std::ofstream(path) << "[[rule]]\nid = 5\nsender = \"a@b.example\"\n";
    EXPECT_EQ(match(loadExemptRules(path, 1), "a@b.example", "", "192.0.2.1"), 5U);
    std::ofstream(path) << "[[rule]]\nid = 5\n";
    EXPECT_EQ(
        refusalOf([&] { loadExemptRules(path, 1); }),
        path + ":1: [rule] rule 5 has no condition: expected at least one of sender, recipient, client, reverse_dns");
    EXPECT_THROW(loadExemptRules(directory.path() + "/missing.toml", 1), SettingsError);
}

TEST(ExemptRules, TheExampleHoldsOneRuleAndTheOthersAreRulesToo) {
    std::string const path = VELLUM_SOURCE_DIR "/packaging/greylist-rules.toml";
    GreyList::RefExemptRuleSet const rules = loadExemptRules(path, 100);
    EXPECT_EQ(rules->rules().size(), 1U);
    EXPECT_EQ(match(rules, "", "Abuse@example.com", "192.0.2.1"), 10U);
    EXPECT_EQ(match(rules, "", "no.abuse@example.com", "192.0.2.1"), 0U);

    std::ifstream file(path);
    std::string text;
    for (std::string line; std::getline(file, line);) {
        bool const commentedOut = line.starts_with("#") && !line.starts_with("# ") && line != "#";
        text += (commentedOut ? line.substr(1) : line) + '\n';
    }
    GreyList::RefExemptRuleSet const all = parse(text);
    EXPECT_EQ(all->rules().size(), 7U);
    EXPECT_EQ(match(all, "", "dev-bounces+jo=a@lists.example.com", "198.51.100.1"), 60U);
    EXPECT_EQ(match(all, "jo@a.example", "me@example.com", "198.51.100.1", "m1.outbound.bulkmail.example"), 40U);
}

} // namespace
} // namespace Vellum::Daemon
