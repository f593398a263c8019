#include "tools/vellumctl/RecordFilter.h"

#include "foundation/Exception.h"

#include <gtest/gtest.h>

namespace Vellum::Tools {
namespace {

Record record(std::string const& network, std::string const& sender = "a@example.net",
              std::string const& recipient = "b@example.org") {
    Record made;
    made.network = IPAddressMask(network);
    made.sender = sender;
    made.recipient = recipient;
    return made;
}

bool inNetwork(std::string const& wanted, std::string const& network) {
    RecordFilter filter;
    filter.network = parseNetwork(wanted);
    return filter.matches(record(network), State::waiting);
}

bool fromSender(std::string const& pattern, std::string const& sender) {
    RecordFilter filter;
    filter.sender = StringPattern(pattern);
    return filter.matches(record("192.0.2.0/24", sender), State::waiting);
}

TEST(RecordFilter, WithoutConditionsShowsEverything) {
    for (State const state : {State::waiting, State::passed, State::active, State::expired}) {
        EXPECT_TRUE(RecordFilter().matches(record("192.0.2.0/24"), state));
    }
}

TEST(RecordFilter, AnAddressFindsTheNetworkThatHoldsIt) {
    EXPECT_TRUE(inNetwork("192.0.2.77", "192.0.2.0/24"));
    EXPECT_FALSE(inNetwork("192.0.3.77", "192.0.2.0/24"));
    EXPECT_TRUE(inNetwork("2001:db8::25", "2001:db8::/64"));
    EXPECT_FALSE(inNetwork("2001:db8:0:1::25", "2001:db8::/64"));
}

TEST(RecordFilter, ANetworkFindsThoseInsideOfItAndThoseAroundIt) {
    EXPECT_TRUE(inNetwork("192.0.0.0/16", "192.0.2.0/24"));
    EXPECT_TRUE(inNetwork("192.0.2.0/24", "192.0.2.0/24"));
    EXPECT_TRUE(inNetwork("192.0.2.128/25", "192.0.2.0/24"));
    EXPECT_FALSE(inNetwork("192.1.0.0/16", "192.0.2.0/24"));
}

TEST(RecordFilter, HostBitsOfANetworkDoNotMatter) {
    EXPECT_TRUE(inNetwork("192.0.77.1/16", "192.0.2.0/24"));
}

TEST(RecordFilter, ANetworkFindsNoneOfTheOtherFamilyAndNoUnknownOne) {
    EXPECT_FALSE(inNetwork("0.0.0.0/0", "2001:db8::/64"));
    EXPECT_FALSE(inNetwork("0.0.0.0/0", "/64"));
    EXPECT_FALSE(inNetwork("0.0.0.0/0", ""));
    EXPECT_TRUE(inNetwork("0.0.0.0/0", "192.0.2.0/24"));
}

TEST(RecordFilter, TextsThatAreNoNetworkAreRefused) {
    for (char const* text : {"", "/24", "192.0.2", "192.0.2.0/33", "example.org", "192.0.2.0/"}) {
        EXPECT_THROW(parseNetwork(text), Exception) << text;
    }
}

TEST(RecordFilter, SendersMatchAPatternWhateverTheirLetterCase) {
    EXPECT_TRUE(fromSender("*@example.net", "Some.One@EXAMPLE.net"));
    EXPECT_FALSE(fromSender("*@example.net", "a@example.net.example.org"));
    EXPECT_TRUE(fromSender("/^bounce-[0-9]+@/", "bounce-17@lists.example.org"));
    EXPECT_FALSE(fromSender("/^bounce-[0-9]+@/", "bounces@lists.example.org"));
}

TEST(RecordFilter, TheNullSenderIsMatchedAsItIsWritten) {
    EXPECT_TRUE(fromSender("<>", ""));
    EXPECT_FALSE(fromSender("<>", "a@example.net"));
    EXPECT_FALSE(fromSender("*@*", ""));
}

TEST(RecordFilter, RecipientsHaveAPatternOfTheirOwn) {
    RecordFilter filter;
    filter.recipient = StringPattern("postmaster@*");
    EXPECT_TRUE(filter.matches(record("192.0.2.0/24", "x@y", "Postmaster@example.org"), State::waiting));
    EXPECT_FALSE(filter.matches(record("192.0.2.0/24", "postmaster@example.org", "b@example.org"), State::waiting));
}

TEST(RecordFilter, SeveralStatesShowWhatIsInAnyOfThem) {
    RecordFilter filter;
    filter.waiting = filter.expired = true;
    EXPECT_TRUE(filter.matches(record("192.0.2.0/24"), State::waiting));
    EXPECT_TRUE(filter.matches(record("192.0.2.0/24"), State::expired));
    EXPECT_FALSE(filter.matches(record("192.0.2.0/24"), State::passed));
    EXPECT_FALSE(filter.matches(record("192.0.2.0/24"), State::active));
}

TEST(RecordFilter, AllConditionsMustHold) {
    RecordFilter filter;
    filter.network = parseNetwork("192.0.2.0/24");
    filter.sender = StringPattern("a@*");
    filter.passed = true;
    EXPECT_TRUE(filter.matches(record("192.0.2.0/24"), State::passed));
    EXPECT_FALSE(filter.matches(record("192.0.3.0/24"), State::passed));
    EXPECT_FALSE(filter.matches(record("192.0.2.0/24", "b@x"), State::passed));
    EXPECT_FALSE(filter.matches(record("192.0.2.0/24"), State::waiting));
}

} // namespace
} // namespace Vellum::Tools
