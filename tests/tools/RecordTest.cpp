#include "tools/vellumctl/Record.h"

#include "foundation/Exception.h"
#include "greylist/GlDisplay.h"
#include "tests/support/GreylistConfiguration.h"
#include "tests/support/GreylistIdentities.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

namespace Vellum::Tools {
namespace {

std::string bytesOf(GreyList::Packet const& packet) {
    std::string bytes(sizeof packet, '\0');
    std::memcpy(bytes.data(), &packet, sizeof packet);
    return bytes;
}

Record decoded(GreyList::Packet const& packet) {
    Record record;
    record.decode(bytesOf(packet));
    return record;
}

Record record(bool passed, std::int64_t passTime, std::int64_t expiry) {
    Record made;
    made.passed = passed;
    made.passTime = passTime;
    made.expiry = expiry;
    return made;
}

TEST(Record, ATupleArrivesAsTheDaemonPackedIt) {
    GreyList::InstalledConfiguration const configuration;
    GreyList::Status const status(1000, 5000, 4000);
    Record const tuple =
        decoded(GreyList::Packet(GreyList::tuple("2001:db8::/64", "a@example.net", "b@example.org"), status, 1300));
    EXPECT_EQ(tuple.network.asString(), "2001:db8::/64");
    EXPECT_EQ(tuple.sender, "a@example.net");
    EXPECT_EQ(tuple.recipient, "b@example.org");
    EXPECT_TRUE(tuple.passed);
    EXPECT_EQ(tuple.passTime, 1300);
    EXPECT_EQ(tuple.expiry, 5000);
}

TEST(Record, AnExemptionArrivesAsTheDaemonPackedIt) {
    Record const exemption =
        decoded(GreyList::Packet(GreyList::exemption("192.0.2.0/24", "example.net"), GreyList::Status(1000, 5000, 0)));
    EXPECT_EQ(exemption.network.asString(), "192.0.2.0/24");
    EXPECT_EQ(exemption.sender, "example.net");
    EXPECT_EQ(exemption.recipient, "");
    EXPECT_EQ(exemption.expiry, 5000);
}

TEST(Record, TextsOfTheGreatestLengthArriveWhole) {
    GreyList::InstalledConfiguration const configuration;
    std::string const longest(256, 's');
    Record const tuple = decoded(
        GreyList::Packet(GreyList::tuple("192.0.2.0/24", longest + "cut", longest), GreyList::Status(0, 0, 0), 0));
    EXPECT_EQ(tuple.sender, longest);
    EXPECT_EQ(tuple.recipient, longest);
}

TEST(Record, ATextWithoutItsNulEndsWithItsField) {
    std::string bytes(sizeof(GreyList::Packet), '\0');
    bytes.replace(28, 257 + 257, 257 + 257, 'x');
    Record record;
    record.decode(bytes);
    EXPECT_EQ(record.sender, std::string(256, 'x'));
    EXPECT_EQ(record.recipient, std::string(256, 'x'));
}

TEST(Record, NothingIsLeftOfTheRecordBefore) {
    GreyList::InstalledConfiguration const configuration;
    Record record;
    record.decode(bytesOf(GreyList::Packet(GreyList::tuple("192.0.2.0/24", "long@example.net", "b@example.org"),
                                           GreyList::Status(0, 0, 0), 0)));
    record.decode(bytesOf(GreyList::Packet(GreyList::tuple("192.0.2.0/24", "", "c@d"), GreyList::Status(0, 0, 0), 0)));
    EXPECT_EQ(record.sender, "");
    EXPECT_EQ(record.recipient, "c@d");
}

TEST(Record, APayloadOfAnotherLengthIsRefused) {
    Record record;
    EXPECT_THROW(record.decode(std::string(559, '\0')), Exception);
    EXPECT_THROW(record.decode(std::string(561, '\0')), Exception);
    EXPECT_THROW(record.decode({}), Exception);
}

TEST(Record, AnAddressOfNoFamilyAndAPrefixOfNoLengthAreRefused) {
    std::string bytes(sizeof(GreyList::Packet), '\0');
    bytes[4] = 5;
    Record record;
    EXPECT_THROW(record.decode(bytes), Exception);
    bytes[4] = 4;
    bytes[24] = 33;
    EXPECT_THROW(record.decode(bytes), Exception);
}

TEST(RecordState, ATupleLivesAtItsExpiryAndNotASecondLonger) {
    EXPECT_EQ(record(true, 100, 500).stateAt(500, Listed::tuples), State::passed);
    EXPECT_EQ(record(true, 100, 500).stateAt(501, Listed::tuples), State::expired);
}

TEST(RecordState, AnExemptionIsDeadAtItsExpiry) {
    EXPECT_EQ(record(false, 0, 500).stateAt(499, Listed::exemptions), State::active);
    EXPECT_EQ(record(false, 0, 500).stateAt(500, Listed::exemptions), State::expired);
}

TEST(RecordState, ATupleMayPassFromItsPassTimeOn) {
    EXPECT_EQ(record(false, 300, 500).stateAt(299, Listed::tuples), State::waiting);
    EXPECT_EQ(record(false, 300, 500).stateAt(300, Listed::tuples), State::passed);
}

TEST(RecordState, WhatTheDaemonFoundPassedStaysSoForAClockThatIsBehind) {
    EXPECT_EQ(record(true, 300, 500).stateAt(299, Listed::tuples), State::passed);
}

TEST(RecordState, ExpiredWinsOverWaiting) {
    EXPECT_EQ(record(false, 900, 500).stateAt(501, Listed::tuples), State::expired);
}

} // namespace
} // namespace Vellum::Tools
