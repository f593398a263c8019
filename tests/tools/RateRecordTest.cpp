#include "tools/vellumctl/RateRecord.h"

#include "foundation/Exception.h"
#include "senderratecontrol/SenderRateControlDisplay.h"
#include "tests/support/RateControl.h"
#include "tools/vellumctl/Bar.h"
#include "tools/vellumctl/RateCommands.h"

#include <gtest/gtest.h>

#include <limits>

namespace Vellum::Tools {
namespace {

using SenderRateControl::Entry;
using SenderRateControl::mailbox;
using SenderRateControl::Packet;
using SenderRateControl::RecordPacket;
using SenderRateControl::RefEntry;

template <class P>
std::string payloadOf(P const& packet) {
    return {reinterpret_cast<char const*>(&packet), sizeof packet};
}
Packet packetOf(std::string const& address, RefEntry const& entry) {
    SharedLock const hold(Entry::s_lock);
    return {mailbox(address), entry, 0};
}
template <class Record>
std::string complaintOf(std::string const& payload) {
    try {
        Record().decode(payload);
        return {};
    } catch (Exception const& refused) {
        return refused.asString();
    }
}

TEST(RateRecordDecoding, TakesOverWhatTheDaemonSends) {
    RefEntry const entry(true);
    entry->add(100, {1, 2, 3, 4, 0xFFFFFFFF});
    entry->state(SenderRateControl::RateControlState::blocked);
    entry->blockedUntil(-5);
    entry->blockedReason(Entry::Attribute4);
    RateRecord record;
    record.sender = "of the record before";
    record.decode(payloadOf(packetOf("ann@example.net", entry)));
    EXPECT_EQ(record.sender, "ann@example.net");
    EXPECT_EQ(record.totals, (RateCounts{1, 2, 3, 4, 0xFFFFFFFF}));
    EXPECT_EQ(record.state, 1U);
    EXPECT_EQ(record.blockedUntil, -5);
    EXPECT_EQ(record.reason, 4U);
    record.decode(payloadOf(packetOf("", RefEntry(true))));
    EXPECT_EQ(record.sender, "<>");
    EXPECT_FALSE(record.isActive());
}

TEST(RateRecordDecoding, AnAddressMayFillItsField) {
    std::string const address(256, 'x');
    RateRecord record;
    record.decode(payloadOf(packetOf(address + "y", RefEntry(true))));
    EXPECT_EQ(record.sender, address);
}

TEST(RateRecordDecoding, WhatIsNoRecordIsRefused) {
    Packet packet = packetOf("a@b", RefEntry(true));
    EXPECT_EQ(complaintOf<RateRecord>(payloadOf(packet).substr(1)),
              "RateRecord::decode (code 4, RateRecord): a record of 303 bytes, expected 304");
    EXPECT_EQ(complaintOf<RateRecord>(payloadOf(packet) + "x"),
              "RateRecord::decode (code 4, RateRecord): a record of 305 bytes, expected 304");
    packet.length = 257;
    EXPECT_EQ(complaintOf<RateRecord>(payloadOf(packet)),
              "RateRecord::decode (code 4, RateRecord): an address of 257 bytes, expected 0 to 256");
    packet.length = -1;
    EXPECT_EQ(complaintOf<RateRecord>(payloadOf(packet)),
              "RateRecord::decode (code 4, RateRecord): an address of -1 bytes, expected 0 to 256");
    EXPECT_EQ(complaintOf<RatePeriod>(std::string(27, 'x')),
              "RatePeriod::decode (code 4, RatePeriod): a record of 27 bytes, expected 28");
    EXPECT_EQ(complaintOf<RatePeriod>(std::string(28, 'x')), "");
}

TEST(RateRecordDecoding, BlockIsOverAtItsEnd) {
    RateRecord record;
    EXPECT_FALSE(record.isBlocked(0)) << "0 is not blocked";
    record.blockedUntil = 1000;
    EXPECT_TRUE(record.isBlocked(999));
    EXPECT_FALSE(record.isBlocked(1000));
}

TEST(RateTexts, KnownStatesHaveNamesAndOthersTheirNumber) {
    EXPECT_EQ(rateStateText(0), "normal");
    EXPECT_EQ(rateStateText(1), "blocked");
    EXPECT_EQ(rateStateText(2), "2");
    EXPECT_EQ(rateStateText(0xFFFFFFFF), "4294967295");
    EXPECT_EQ(rateReasonText(0), "-");
    EXPECT_EQ(rateReasonText(5), "count5");
    EXPECT_EQ(rateReasonText(77), "count77");
}

TEST(RatePeriods, OneKnowsWhenItBeginsAndWhatItHoldsTogether) {
    RatePeriod period;
    period.decode(payloadOf(RecordPacket(0xFFFFFFFF, {0xFFFFFFFF, 1, 2, 3, 4})));
    EXPECT_EQ(period.from(), 0xFFFFFFFFL * 300);
    EXPECT_EQ(period.together(), 0xFFFFFFFFUL + 10);
}

std::vector<std::pair<std::uint32_t, std::uint32_t>> shown(std::vector<std::pair<std::uint32_t, std::uint32_t>> sent) {
    std::vector<RatePeriod> periods;
    for (auto const& [number, count] : sent) {
        periods.push_back({number, {count, 0, 0, 0, 0}});
    }
    sent.clear();
    for (RatePeriod const& period : shownPeriods(periods, 1'000'000'199)) {
        sent.emplace_back(period.period, period.counts[0]);
    }
    return sent;
}

TEST(RatePeriods, HalfAnHourWithoutGaps) {
    using Pairs = std::vector<std::pair<std::uint32_t, std::uint32_t>>;
    EXPECT_EQ(shown({}), (Pairs{{3333328, 0}, {3333329, 0}, {3333330, 0}, {3333331, 0}, {3333332, 0}, {3333333, 0}}));
    EXPECT_EQ(shown({{3333327, 1}, {3333328, 2}, {3333331, 3}, {3333333, 4}}),
              (Pairs{{3333328, 2}, {3333329, 0}, {3333330, 0}, {3333331, 3}, {3333332, 0}, {3333333, 4}}));
    EXPECT_EQ(shown({{3333336, 9}}).back(), Pairs::value_type(3333336, 9)) << "where the daemon's clock is ahead";
    EXPECT_EQ(shown({{3333336, 9}}).size(), 7U);
}

TEST(Bar, IsInProportionAndNeverNothingForSomething) {
    EXPECT_EQ(bar(0, 100, 10), "");
    EXPECT_EQ(bar(0, 0, 10), "");
    EXPECT_EQ(bar(5, 0, 10), "");
    EXPECT_EQ(bar(1, 1000, 10), "#");
    EXPECT_EQ(bar(149, 1000, 10), "#");
    EXPECT_EQ(bar(150, 1000, 10), "##");
    EXPECT_EQ(bar(949, 1000, 10), "#########");
    EXPECT_EQ(bar(950, 1000, 10), "##########");
    EXPECT_EQ(bar(1000, 1000, 10), "##########");
    EXPECT_EQ(bar(5000, 1000, 10), "##########");
    constexpr auto huge = std::numeric_limits<std::uint64_t>::max();
    EXPECT_EQ(bar(huge, huge, 3), "###");
}

} // namespace
} // namespace Vellum::Tools
