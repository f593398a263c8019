// Parsed rows on their way into the cache.
#include "reputation/EntryRow.h"

#include "tests/support/ReputationCache.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>

namespace Vellum::Reputation {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

class RowAdapter : public ReputationCache {};

Ref<Vellum::Database::RowImpl> hourRow(std::string const& address, std::uint32_t period) {
    auto* const row = new EntryRow;
    row->address = ip(address);
    row->period = period;
    row->messageCount = 5;
    row->recipients = 6;
    row->state = 2;
    return Ref<Vellum::Database::RowImpl>(row);
}

TEST_F(RowAdapter, RowThatIsNoneIsLoggedAndTheNextOneGoesOn) {
    Vellum::Database::RowContainer::Rows rows{hourRow("192.0.2.1", 7), Ref<Vellum::Database::RowImpl>(),
                                              hourRow("192.0.2.1", 8)};
    std::for_each(rows.begin(), rows.end(), AdapterRowToEntry());
    EXPECT_THAT(held(), ElementsAre("192.0.2.1 2: 7=5/6/0/0/0 8=5/6/0/0/0"));
    auto const lines = m_log.lines();
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_EQ(lines[0].code, 0x3000178U);
    EXPECT_EQ(lines[0].level, 0);
    EXPECT_EQ(lines[0].format, "%s");
}

} // namespace
} // namespace Vellum::Reputation
