#include "foundation/ipc/Pdu.h"

#include <gtest/gtest.h>

namespace Vellum::IPC {

TEST(Pdu, RawFormIsTypeLengthPayloadInHostOrder) {
    Pdu const pdu(0x01020304U, Buffer("abc", 3, true));
    EXPECT_EQ(pdu().view(), std::string_view("\x04\x03\x02\x01\x03\x00\x00\x00"
                                             "abc",
                                             11));
}

TEST(Pdu, EndMarkerIsEightBytes) {
    EXPECT_EQ(Pdu(4, 0)().view(), std::string_view("\x04\0\0\0\0\0\0\0", 8));
}

TEST(Pdu, ReceiveBufferIsEmptyUntilSomethingIsReceived) {
    Pdu pdu(0, 1024);
    EXPECT_EQ(pdu.type(), 0U);
    EXPECT_EQ(pdu.data().length(), 0U);
    pdu.assign(7, "payload", 7);
    EXPECT_EQ(pdu.type(), 7U);
    EXPECT_EQ(pdu.data().view(), "payload");
    pdu.assign(8, nullptr, 0);
    EXPECT_EQ(pdu.data().length(), 0U);
}

TEST(Pdu, HugeCapacityIsOnlyAHint) {
    EXPECT_EQ(Pdu(0, 0xffffffffU).data().length(), 0U);
}

TEST(Pdu, IntValueHasTypeThreeAndFourBytes) {
    EXPECT_EQ(PduIntValue(-2)().view(), std::string_view("\x03\0\0\0\x04\0\0\0\xfe\xff\xff\xff", 12));
}

TEST(Pdu, PayloadIsReadAsAStructOnlyWhenLongEnough) {
    struct Layout {
        std::uint32_t address;
        std::int32_t state;
    };
    Layout const sent{5, -1};
    auto const whole = payloadAs<Layout>(Pdu(13, Buffer(&sent, sizeof sent, true)));
    ASSERT_TRUE(whole);
    EXPECT_EQ(whole->address, 5U);
    EXPECT_EQ(whole->state, -1);
    EXPECT_FALSE(payloadAs<Layout>(Pdu(13, Buffer(&sent, sizeof sent - 1, true))));
    EXPECT_FALSE(payloadAs<std::uint32_t>(Pdu(19, 0)));
}

TEST(Pdu, PayloadTextKeepsEveryByte) {
    EXPECT_EQ(payloadText(Pdu(30, Buffer("a\0b", 3, true))), std::string("a\0b", 3));
}

TEST(PduType, NumbersAreThoseOfTheProtocol) {
    EXPECT_EQ(number(PduType::count), 3U);
    EXPECT_EQ(number(PduType::endOfListing), 4U);
    EXPECT_EQ(number(PduType::listTuples), 5U);
    EXPECT_EQ(number(PduType::reloadGreylist), 9U);
    EXPECT_EQ(number(PduType::setReputationState), 13U);
    EXPECT_EQ(number(PduType::reloadEndpoints), 19U);
    EXPECT_EQ(number(PduType::removeEndpoint), 23U);
    EXPECT_EQ(number(PduType::listReputationRecords), 26U);
    EXPECT_EQ(number(PduType::senderRateRecord), 31U);
}

} // namespace Vellum::IPC
