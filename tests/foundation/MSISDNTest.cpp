#include "foundation/MSISDN.h"

#include "foundation/HostName.h"

#include <gtest/gtest.h>

namespace Vellum {
namespace {

TEST(MSISDN, DigitsAreKeptAsWritten) {
    for (char const* text : {"15555550100", "+15555550100", "0", "+0", "0049"}) {
        EXPECT_EQ(MSISDN(text).asString(), text);
        EXPECT_EQ(MSISDN(std::string(text)).asString(), text);
        EXPECT_FALSE(MSISDN(text).isNull());
    }
}

TEST(MSISDN, OtherTextIsNull) {
    EXPECT_TRUE(MSISDN().isNull());
    EXPECT_TRUE(MSISDN(static_cast<char const*>(nullptr)).isNull());
    for (char const* text : {"", "+", "++1", "1+", "1 2", " 1", "1\n", "12a", "-1", "\xd9\xa1"}) {
        EXPECT_TRUE(MSISDN(text).isNull()) << text;
        EXPECT_EQ(MSISDN(text).asString(), "");
    }
    EXPECT_TRUE(MSISDN(std::string("1\0", 2)).isNull());
}

TEST(MSISDN, OrderIsByteWiseWithNullFirst) {
    EXPECT_LT(MSISDN(), MSISDN("+1"));
    EXPECT_LT(MSISDN("+1"), MSISDN("1"));
    EXPECT_LT(MSISDN("10"), MSISDN("9"));
    EXPECT_FALSE(MSISDN("1") < MSISDN("1"));
    EXPECT_EQ(MSISDN("1"), MSISDN("1"));
    EXPECT_FALSE(MSISDN("1") == MSISDN("+1"));
}

TEST(HostName, EmptyIsNull) {
    EXPECT_TRUE(HostName().isNull());
    EXPECT_TRUE(HostName("").isNull());
    EXPECT_FALSE(HostName("mail.example.org").isNull());
    EXPECT_EQ(HostName("Mail.Example.org").asString(), "Mail.Example.org");
}

} // namespace
} // namespace Vellum
