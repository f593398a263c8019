// Parsed rows on their way into the caches.
#include "greylist/GlRows.h"

#include "tests/support/ProcessCaches.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>

namespace Vellum::GreyList {
namespace {

using testing::HasSubstr;

using Rows = Database::RowContainer::Rows;

class RowAdaptersTest : public ProcessCaches {};

Ref<Database::RowImpl> tupleRow(std::string const& sender) {
    auto* const row = new RecordRowWithExpiryTime;
    row->clientIP = IPAddressMask("192.0.2.0/24");
    row->sender = mailbox(sender);
    row->recipient = mailbox("c@d");
    row->creationTime = 5;
    row->expiryTime = 6;
    return Ref<Database::RowImpl>(row);
}

template <class Row>
Ref<Database::RowImpl> exemptionRow(std::string const& domain) {
    auto* const row = new Row;
    row->clientIPMask = IPAddressMask("192.0.2.0/24");
    row->domain = domain;
    row->creationTime = 5;
    row->expiryTime = 6;
    return Ref<Database::RowImpl>(row);
}

void expectTimes(Status const& status, long firstSeen, long expiry, long initialLifetime) {
    EXPECT_EQ(status.firstSeen, firstSeen);
    EXPECT_EQ(long(status.expiry), expiry);
    EXPECT_EQ(status.initialLifetime, initialLifetime);
}

TEST_F(RowAdaptersTest, NewRowsAreEmpty) {
    RecordRowWithExpiryTime const tuple;
    EXPECT_EQ(tuple.clientIP, IPAddressMask());
    EXPECT_TRUE(tuple.sender.isNull());
    EXPECT_TRUE(tuple.recipient.isNull());
    EXPECT_EQ(tuple.creationTime, 0);
    EXPECT_EQ(tuple.expiryTime, 0);
    DynamicExemptRecordRow const exemption;
    EXPECT_EQ(exemption.clientIPMask, IPAddressMask());
    EXPECT_EQ(exemption.domain, "");
    EXPECT_EQ(exemption.creationTime, 0);
    EXPECT_EQ(exemption.expiryTime, 0);
}

TEST_F(RowAdaptersTest, TupleRowsBecomeTuplesWithoutAFirstLifetime) {
    m_tuples.add(tuple("192.0.2.0/24", "a@b", "c@d"), Status(1, 2, 3));
    Rows const rows{tupleRow("a@b"), tupleRow("b@b")};
    std::for_each(rows.begin(), rows.end(), AdapterRecordRowToSenderDataBase());
    expectTimes(m_tuples.find(tuple("192.0.2.0/24", "a@b", "c@d"))->second, 1, 2, 3);
    expectTimes(m_tuples.find(tuple("192.0.2.0/24", "b@b", "c@d"))->second, 5, 6, 0);
    EXPECT_EQ(sizeOf(m_tuples), 2U);
}

TEST_F(RowAdaptersTest, ExemptionRowsOfBothKindsBecomeExemptions) {
    Rows const whole{exemptionRow<GLAutoExemptRecordRowWithExpiryTime>("a.example")};
    std::for_each(whole.begin(), whole.end(), AdapterRecordRowToGLAutoExemptDataBase());
    Rows const alone{exemptionRow<DynamicExemptRecordRow>("B.example")};
    std::for_each(alone.begin(), alone.end(), AdapterRowToDynamicExemptRecord());
    expectTimes(m_exemptions.find(exemption("192.0.2.0/24", "a.example"))->second, 5, 6, 0);
    expectTimes(m_exemptions.find(exemption("192.0.2.0/24", "B.example"))->second, 5, 6, 0);
}

TEST_F(RowAdaptersTest, RowThatIsNoTupleIsLoggedAndTheNextOneGoesOn) {
    Rows const rows{tupleRow("a@b"), tupleRow(std::string(EmailAddress::maxLength + 1, 'x')), tupleRow("b@b")};
    std::for_each(rows.begin(), rows.end(), AdapterRecordRowToSenderDataBase());
    EXPECT_EQ(sizeOf(m_tuples), 2U);
    auto const lines = m_log.lines();
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_EQ(lines[0].code, 0x3000198U);
    EXPECT_EQ(lines[0].format, "%s");
    EXPECT_THAT(lines[0].text, HasSubstr("an address of 1025 octets"));
}

} // namespace
} // namespace Vellum::GreyList
