#include "greylist/ExemptRuleSet.h"

#include "foundation/Exception.h"
#include "tests/support/GreylistIdentities.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <set>

namespace Vellum::GreyList {
namespace {

using Filter = ExemptRuleSet::Filter;

StringPattern const any;
IPAddressMask const anywhere;

// A message; a filter refers to it.
struct Message {
    EmailAddress sender = mailbox("news@example.net");
    EmailAddress recipient = mailbox("john@example.org");
    IPAddress client = IPAddress("192.0.2.77");
    HostName reverseDns = HostName("mail.example.net");

    Filter filter() const { return {sender, recipient, client, reverseDns}; }
    bool matches(std::string const& senderPattern, std::string const& recipientPattern, std::string const& network,
                 std::string const& reverseDnsPattern) const {
        return filter()(RefExemptRule(1, StringPattern(senderPattern), StringPattern(recipientPattern),
                                      IPAddressMask(network), StringPattern(reverseDnsPattern)));
    }
};

RefExemptRule fromSender(unsigned int id, std::string const& pattern) {
    return {id, StringPattern(pattern), any, anywhere, any};
}

TEST(ExemptFilter, RuleWithoutConditionsMatchesEverything) {
    EXPECT_TRUE(Message().matches("", "", "", ""));
    EXPECT_TRUE((Message{EmailAddress(), EmailAddress(), IPAddress(), HostName()}.matches("", "", "", "")));
}

TEST(ExemptFilter, AllFourConditionsMustHold) {
    Message const message;
    EXPECT_TRUE(message.matches("news@*", "john@*", "192.0.2.0/24", "mail.*"));
    EXPECT_FALSE(message.matches("other@*", "john@*", "192.0.2.0/24", "mail.*"));
    EXPECT_FALSE(message.matches("news@*", "jane@*", "192.0.2.0/24", "mail.*"));
    EXPECT_FALSE(message.matches("news@*", "john@*", "192.0.3.0/24", "mail.*"));
    EXPECT_FALSE(message.matches("news@*", "john@*", "192.0.2.0/24", "www.*"));
}

TEST(ExemptFilter, NullAddressesAreMatchedAsTheEmptyText) {
    Message message;
    message.sender = EmailAddress();
    EXPECT_TRUE(message.matches("/^$/", "", "", ""));
    EXPECT_FALSE(message.matches("<>", "", "", ""));
    EXPECT_FALSE(message.matches("?*", "", "", ""));
    message.sender = mailbox("a@b");
    EXPECT_FALSE(message.matches("/^$/", "", "", ""));
    message.recipient = EmailAddress();
    EXPECT_TRUE(message.matches("a@b", "/^$/", "", ""));
    EXPECT_FALSE(message.matches("a@b", "?*", "", ""));
}

TEST(ExemptFilter, ClientNetworkIsMatchedAtItsBorders) {
    Message message;
    for (auto const& [address, inside] :
         {std::pair("192.0.2.0", true), std::pair("192.0.2.255", true), std::pair("192.0.1.255", false),
          std::pair("192.0.3.0", false), std::pair("::ffff:192.0.2.77", false)}) {
        message.client = IPAddress(address);
        EXPECT_EQ(message.matches("", "", "192.0.2.0/24", ""), inside) << address;
    }
}

TEST(ExemptFilter, ClientWithoutANameIsMatchedByItsAddressText) {
    Message message;
    message.reverseDns = HostName();
    EXPECT_TRUE(message.matches("", "", "", "192.0.2.77"));
    EXPECT_FALSE(message.matches("", "", "", "mail.example.net"));
    message.client = IPAddress("2001:DB8::1");
    EXPECT_TRUE(message.matches("", "", "", "2001:db8::1"));
    message.reverseDns = HostName("mail.example.net");
    EXPECT_FALSE(message.matches("", "", "", "2001:db8::1")) << "with a name, only that counts";
    EXPECT_TRUE(message.matches("", "", "", "*.EXAMPLE.net"));
}

TEST(ExemptFilter, RefersToTheMessageItWasMadeOf) {
    Message message;
    Filter const filter = message.filter();
    message.sender = mailbox("changed@example.net");
    EXPECT_TRUE(filter(fromSender(1, "changed@*")));
}

TEST(ExemptFilter, NullRuleThrows) {
    Message const message;
    try {
        static_cast<void>(message.filter()(RefExemptRule()));
        FAIL() << "matched";
    } catch (Exception const& refused) {
        EXPECT_EQ(refused.where(), "operator->");
        EXPECT_EQ(refused.code(), 1);
    }
}

TEST(ExemptRuleSet, NewSetHasANameAndFindsNothing) {
    ExemptRuleSet const rules("site");
    EXPECT_EQ(rules.name(), "site");
    EXPECT_TRUE(rules.rules().empty());
    RefExemptRule const& none = rules.find(Message().filter());
    EXPECT_TRUE(none.isNull());
    EXPECT_EQ(&none, &rules.find(Message().filter())) << "the set's own null handle";
}

TEST(ExemptRuleSet, LowestMatchingIdWinsWhateverTheOrderOfAdding) {
    for (bool const ascending : {true, false}) {
        ExemptRuleSet rules("site");
        rules.add(fromSender(ascending ? 3 : 7, "news@*"));
        rules.add(fromSender(ascending ? 7 : 3, "news@*"));
        rules.add(fromSender(1, "other@*"));
        EXPECT_EQ(rules.find(Message().filter())->id(), 3U);
    }
}

TEST(ExemptRuleSet, RulesThatDoNotMatchAreNotFound) {
    ExemptRuleSet rules("site");
    rules.add(fromSender(3, "other@*"));
    rules.add(fromSender(7, "another@*"));
    RefExemptRule const& none = rules.find(Message().filter());
    EXPECT_TRUE(none.isNull());
    EXPECT_TRUE(std::none_of(rules.rules().begin(), rules.rules().end(),
                             [&](RefExemptRule const& rule) { return &rule == &none; }));
}

TEST(ExemptRuleSet, FoundRuleIsTheOneInTheSet) {
    ExemptRuleSet rules("site");
    RefExemptRule const rule = fromSender(3, "news@*");
    rules.add(rule);
    RefExemptRule const& found = rules.find(Message().filter());
    EXPECT_TRUE(found == rule);
    EXPECT_EQ(&found, &*rules.rules().begin());
}

TEST(ExemptRuleSet, FirstRuleAddedUnderAnIdStays) {
    ExemptRuleSet rules("site");
    rules.add(fromSender(3, "first@*"));
    rules.add(fromSender(3, "second@*"));
    ASSERT_EQ(rules.rules().size(), 1U);
    EXPECT_EQ((*rules.rules().begin())->senderPattern().asString(), "first@*");
}

TEST(ExemptRuleSet, RulesAreIteratedInAscendingId) {
    ExemptRuleSet rules("site");
    for (unsigned int const id : {7U, 3U, 4294967295U, 0U}) {
        rules.add(fromSender(id, "x"));
    }
    std::vector<unsigned int> ids;
    for (RefExemptRule const& rule : rules.rules()) {
        ids.push_back(rule->id());
    }
    EXPECT_EQ(ids, (std::vector<unsigned int>{0, 3, 7, 4294967295U}));
}

TEST(ExemptRuleSet, NullRuleSortsFirstAndItsFailureNamesTheSearch) {
    ExemptRuleSet rules("site");
    rules.add(fromSender(0, "news@*"));
    rules.add(RefExemptRule());
    rules.add(RefExemptRule());
    ASSERT_EQ(rules.rules().size(), 2U);
    EXPECT_TRUE(rules.rules().begin()->isNull());
    try {
        static_cast<void>(rules.find(Message().filter()));
        FAIL() << "found";
    } catch (Exception const& failed) {
        EXPECT_EQ(failed.where(), "ExemptRuleSet::find");
        EXPECT_EQ(failed.code(), 4);
        EXPECT_EQ(failed.sourceFile(), "GlExemptRuleSet");
        EXPECT_EQ(failed.line(), 79U);
        ASSERT_NE(failed.cause(), nullptr);
        EXPECT_EQ(failed.cause()->where(), "operator->");
        EXPECT_EQ(failed.asString(), "ExemptRuleSet::find (code 4, GlExemptRuleSet:79); caused by operator-> (code 1, "
                                     "include2/VellumRefcounted:359)");
    }
}

TEST(RefExemptRuleSet, MadeFromANameItHoldsANewEmptySet) {
    RefExemptRuleSet const set("site");
    EXPECT_EQ(set->name(), "site");
    EXPECT_TRUE(set->rules().empty());
    EXPECT_EQ(set->references(), 1U);
    EXPECT_TRUE(RefExemptRuleSet().isNull());
}

TEST(RefExemptRuleSet, IsOrderedByNameNullFirst) {
    auto const less = [](RefExemptRuleSet const& a, RefExemptRuleSet const& b) {
        EXPECT_FALSE(b < a);
        return a < b;
    };
    EXPECT_TRUE(less(RefExemptRuleSet("ab"), RefExemptRuleSet("b")));
    EXPECT_TRUE(less(RefExemptRuleSet("a"), RefExemptRuleSet("ab")));
    EXPECT_TRUE(less(RefExemptRuleSet("z"), RefExemptRuleSet("\xc3\xa9"))) << "unsigned bytes";
    EXPECT_TRUE(less(RefExemptRuleSet("B"), RefExemptRuleSet("a")));
    EXPECT_TRUE(less(RefExemptRuleSet(), RefExemptRuleSet("")));
    EXPECT_FALSE(RefExemptRuleSet() < RefExemptRuleSet());
    EXPECT_FALSE(RefExemptRuleSet("a") < RefExemptRuleSet("a"));
}

TEST(RefExemptRuleSet, IsEqualByName) {
    RefExemptRuleSet const set("a");
    EXPECT_TRUE(set == RefExemptRuleSet(set));
    EXPECT_TRUE(set == RefExemptRuleSet("a"));
    EXPECT_FALSE(set == RefExemptRuleSet("A"));
    EXPECT_FALSE(set == RefExemptRuleSet("ab"));
    EXPECT_FALSE(set == RefExemptRuleSet());
    EXPECT_FALSE(RefExemptRuleSet() == RefExemptRuleSet(""));
    EXPECT_TRUE(RefExemptRuleSet() == RefExemptRuleSet());
}

} // namespace
} // namespace Vellum::GreyList
