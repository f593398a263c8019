#include "greylist/DynamicExemptRecordWriter.h"

#include "tests/support/GreylistIdentities.h"

#include <gtest/gtest.h>

#include <limits>
#include <sstream>

namespace Vellum::GreyList {
namespace {

TEST(DynamicExemptRecordWriter, PutsACommaBeforeAllButTheFirst) {
    std::ostringstream out;
    DynamicExemptRecordWriter writer(out);
    EXPECT_TRUE(writer.first);
    writer(exemption("192.0.2.0/24", "a.example"), Status(1000, 2000, 7));
    EXPECT_FALSE(writer.first);
    writer(exemption("2001:db8::/64", "b.example"), Status(1001, 2001, 7));
    EXPECT_EQ(out.str(), "\n('192.0.2.0/24', 'a.example', 1000,2000),\n('2001:db8::/64', 'b.example', 1001,2001)");
}

TEST(DynamicExemptRecordWriter, FlagBeginsAnInsertAgain) {
    std::ostringstream out;
    DynamicExemptRecordWriter writer(out);
    writer(exemption("192.0.2.0/24", "a"), Status(1, 2, 0));
    writer.first = true;
    writer(exemption("192.0.2.0/24", "b"), Status(3, 4, 0));
    EXPECT_EQ(out.str(), "\n('192.0.2.0/24', 'a', 1,2)\n('192.0.2.0/24', 'b', 3,4)");
}

TEST(DynamicExemptRecordWriter, WritesTheDomainAsItIs) {
    std::ostringstream out;
    DynamicExemptRecordWriter writer(out);
    writer(exemption("192.0.2.0/24", "it's\\ %s \xc3\xa9\xff"), Status(0, 0, 0));
    EXPECT_EQ(out.str(), "\n('192.0.2.0/24', 'it's\\ %s \xc3\xa9\xff', 0,0)");
}

TEST(DynamicExemptRecordWriter, WritesWholeSixtyFourBitNumbers) {
    std::ostringstream out;
    DynamicExemptRecordWriter writer(out);
    writer(exemption("192.0.2.0/24", "a"),
           Status(std::numeric_limits<long>::min(), std::numeric_limits<long>::max(), 0));
    EXPECT_EQ(out.str(), "\n('192.0.2.0/24', 'a', -9223372036854775808,9223372036854775807)");
}

} // namespace
} // namespace Vellum::GreyList
