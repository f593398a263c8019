#include "foundation/Exception.h"
#include "greylist/ExemptRuleSet.h"

#include <gtest/gtest.h>

#include <memory>

namespace Vellum::GreyList {
namespace {

StringPattern const any;
IPAddressMask const anywhere;

TEST(ExemptRule, DefaultOneHasIdZeroAndNoCondition) {
    ExemptRule const rule;
    EXPECT_EQ(rule.id(), 0U);
    EXPECT_TRUE(rule.senderPattern().isEmpty());
    EXPECT_TRUE(rule.recipientPattern().isEmpty());
    EXPECT_EQ(rule.clientIPMask(), IPAddressMask());
    EXPECT_TRUE(rule.reverseDnsPattern().isEmpty());
}

TEST(ExemptRule, KeepsWhatItIsMadeOf) {
    ExemptRule const rule(4000000000U, StringPattern("a@*"), StringPattern("b@*"), IPAddressMask("192.0.2.0/24"),
                          StringPattern("*.example"));
    EXPECT_EQ(rule.id(), 4000000000U);
    EXPECT_EQ(rule.senderPattern().asString(), "a@*");
    EXPECT_EQ(rule.recipientPattern().asString(), "b@*");
    EXPECT_EQ(rule.clientIPMask().asString(), "192.0.2.0/24");
    EXPECT_EQ(rule.reverseDnsPattern().asString(), "*.example");
}

TEST(ExemptRule, IsOrderedByIdAlone) {
    ExemptRule const three(3, StringPattern("z"), any, anywhere, any);
    ExemptRule const seven(7, StringPattern("a"), any, anywhere, any);
    EXPECT_TRUE(three < seven);
    EXPECT_FALSE(seven < three);
    EXPECT_FALSE(three < ExemptRule(3, StringPattern("zz"), any, anywhere, any));
}

TEST(ExemptRule, IsEqualByItsFourConditionsWhateverTheIds) {
    auto const rule = [](unsigned int id, int different) {
        return std::make_unique<ExemptRule>(id, StringPattern(different == 0 ? "other" : "sender"),
                                            StringPattern(different == 1 ? "other" : "recipient"),
                                            IPAddressMask(different == 2 ? "192.0.2.0/25" : "192.0.2.0/24"),
                                            StringPattern(different == 3 ? "other" : "name"));
    };
    EXPECT_TRUE(*rule(3, -1) == *rule(7, -1));
    for (int const different : {0, 1, 2, 3}) {
        EXPECT_FALSE(*rule(3, -1) == *rule(3, different)) << different;
        EXPECT_TRUE(*rule(3, different) == *rule(4, different)) << different;
    }
}

TEST(RefExemptRule, NullSortsBeforeEveryRuleAndEqualsOnlyNull) {
    RefExemptRule const null;
    RefExemptRule const rule(0, any, any, anywhere, any);
    EXPECT_TRUE(null.isNull());
    EXPECT_TRUE(null < rule);
    EXPECT_FALSE(rule < null);
    EXPECT_FALSE(null < RefExemptRule());
    EXPECT_TRUE(null == RefExemptRule());
    EXPECT_FALSE(null == rule);
    EXPECT_FALSE(rule == null);
}

TEST(RefExemptRule, IsOrderedByTheRulesId) {
    RefExemptRule const three(3, any, any, anywhere, any);
    RefExemptRule const seven(7, any, any, anywhere, any);
    EXPECT_TRUE(three < seven);
    EXPECT_FALSE(seven < three);
    EXPECT_FALSE(three < RefExemptRule(3, any, any, anywhere, any));
}

TEST(RefExemptRule, EqualHandlesShareTheRule) {
    RefExemptRule const rule(3, any, any, anywhere, any);
    RefExemptRule const copy(rule);
    RefExemptRule const twin(3, any, any, anywhere, any);
    EXPECT_TRUE(rule == copy);
    EXPECT_FALSE(rule == twin);
    EXPECT_TRUE(*rule == *twin);
    EXPECT_EQ(rule->references(), 2U);
    EXPECT_EQ(twin->references(), 1U);
}

} // namespace
} // namespace Vellum::GreyList
