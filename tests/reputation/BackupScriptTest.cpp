// The script's text, whole.
#include "reputation/BackupScript.h"

#include "tests/support/ReputationCache.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>

namespace Vellum::Reputation {
namespace {

using Record = Entry::Record;
using testing::ElementsAre;

constexpr char const* head = "LOCK TABLES sender_reputation WRITE,sender_reputation_state WRITE;\n"
                             "delete from sender_reputation;\n"
                             "delete from sender_reputation_state;\n";
constexpr char const* tail = "\nUNLOCK TABLES;\n";

// The INSERT statements of these rows, as the script has them.
std::string inserts(std::string const& table, std::vector<std::string> const& rows) {
    std::string text;
    for (std::size_t n = 0; n < rows.size(); ++n) {
        if (n % 1000 == 0) {
            text += (n == 0 ? "" : ";\ncommit;\n") + ("\nINSERT INTO " + table + " VALUES");
        } else {
            text += ",";
        }
        text += "\n" + rows[n];
    }
    return rows.empty() ? text : text + ";\ncommit;\n";
}

std::string script(std::vector<std::string> const& records, std::vector<std::string> const& states) {
    return head + inserts("sender_reputation", records) + inserts("sender_reputation_state", states) + tail;
}

class BackupScriptTest : public ReputationCache {
  protected:
    std::string written() {
        std::ostringstream out;
        m_rows = BackupSnapshot(m_cache).write(out);
        return out.str();
    }
    BackupSnapshot::Rows m_rows;
};

TEST_F(BackupScriptTest, EmptyCacheEmptiesBothTables) {
    EXPECT_EQ(written(), script({}, {}));
    EXPECT_EQ(written(), "LOCK TABLES sender_reputation WRITE,sender_reputation_state WRITE;\ndelete from "
                         "sender_reputation;\ndelete from sender_reputation_state;\n\nUNLOCK TABLES;\n");
    EXPECT_EQ(m_rows.records + m_rows.addresses + m_rows.leftOut, 0U);
}

TEST_F(BackupScriptTest, RowsComeByAddressAndPeriodWithAllPeriodsHeld) {
    RefEntry const six = m_cache.entry(ip("2001:db8::1"));
    six->add(3, Record(1, 2, 3, 4, 5));
    RefEntry const four = m_cache.entry(ip("192.0.2.25"));
    four->add(477000, Record(6, 7, 0, 0, 0));
    four->add(1, Record(0, 0, 0, 0, 0));
    four->state(ReputationState::blocked);
    four->increment(Entry::AttributeType::ExtraTotal, 477000, 6); // no column keeps it
    EXPECT_EQ(written(), script({"('192.0.2.25', 1, 0, 0, 0, 0, 0)", "('192.0.2.25', 477000, 6, 7, 0, 0, 0)",
                                 "('2001:db8::1', 3, 1, 2, 3, 4, 5)"},
                                {"('192.0.2.25', 3)", "('2001:db8::1', 0)"}));
    EXPECT_EQ(m_rows.records, 3U);
    EXPECT_EQ(m_rows.addresses, 2U);
    EXPECT_TRUE(m_log.lines().empty());
}

TEST_F(BackupScriptTest, EntryWithoutRecordsIsNotSavedWhateverItsState) {
    m_cache.entry(ip("192.0.2.25"))->state(ReputationState::blocked);
    EXPECT_EQ(written(), script({}, {}));
}

TEST_F(BackupScriptTest, ThousandRowsAreOneStatementAndOneMoreAreTwo) {
    for (unsigned int const count : {999U, 1000U, 1001U, 2000U, 2001U}) {
        m_cache.clear();
        std::vector<std::string> records;
        std::vector<std::string> states;
        for (unsigned int n = 0; n < count; ++n) {
            m_cache.entry(ip(n))->add(5, Record(n, 0, 0, 0, 0));
            records.push_back("('" + ip(n).asString() + "', 5, " + std::to_string(n) + ", 0, 0, 0, 0)");
            states.push_back("('" + ip(n).asString() + "', 0)");
        }
        EXPECT_EQ(written(), script(records, states)) << count;
    }
}

TEST_F(BackupScriptTest, BatchesGoAcrossAddressesAndCountForEachTableApart) {
    std::vector<std::string> records;
    std::vector<std::string> states;
    for (unsigned int n = 0; n < 300; ++n) {
        for (unsigned int period = 0; period < 7; ++period) {
            m_cache.entry(ip(n))->add(period, Record(1, 1, 1, 1, 1));
            records.push_back("('" + ip(n).asString() + "', " + std::to_string(period) + ", 1, 1, 1, 1, 1)");
        }
        states.push_back("('" + ip(n).asString() + "', 0)");
    }
    EXPECT_EQ(written(), script(records, states));
}

TEST_F(BackupScriptTest, CounterBeyondAnIntIsItsEndAndIsLogged) {
    m_cache.entry(ip("192.0.2.25"))->add(5, Record(2147483647U, 2147483648U, 0xFFFFFFFFU, 0, 1));
    EXPECT_EQ(written(),
              script({"('192.0.2.25', 5, 2147483647, 2147483647, 2147483647, 0, 1)"}, {"('192.0.2.25', 0)"}));
    ASSERT_EQ(m_log.lines().size(), 2U);
    for (auto const& line : m_log.lines()) {
        EXPECT_EQ(line.code, 0x3000185U);
        EXPECT_EQ(line.format, "%s");
    }
    EXPECT_EQ(m_log.lines()[0].text, "cut: counter 2147483648 in period 5 of address 192.0.2.25: it is beyond "
                                     "the column's range, whose end is stored");
    EXPECT_EQ(m_rows.records, 1U);
    EXPECT_EQ(m_rows.leftOut, 0U);
}

TEST_F(BackupScriptTest, PeriodBeyondAnIntIsLeftOutAndTheOthersStay) {
    RefEntry const entry = m_cache.entry(ip("192.0.2.25"));
    entry->add(2147483647U, Record(1, 1, 1, 1, 1));
    entry->add(2147483648U, Record(2, 2, 2, 2, 2));
    EXPECT_EQ(written(), script({"('192.0.2.25', 2147483647, 1, 1, 1, 1, 1)"}, {"('192.0.2.25', 0)"}));
    EXPECT_EQ(m_rows.leftOut, 1U);
    ASSERT_EQ(m_log.lines().size(), 1U);
    EXPECT_EQ(m_log.lines()[0].code, 0x3000185U);
    EXPECT_EQ(m_log.lines()[0].text, "not stored: period 2147483648 of address 192.0.2.25: the period is beyond the "
                                     "column's range");
}

// A loader refuses an empty text, and with it the whole table.
TEST_F(BackupScriptTest, NullAddressIsLeftOut) {
    m_cache.entry(IPAddress())->add(5, Record(1, 1, 1, 1, 1));
    m_cache.entry(ip("192.0.2.25"))->add(5, Record(1, 1, 1, 1, 1));
    EXPECT_EQ(written(), script({"('192.0.2.25', 5, 1, 1, 1, 1, 1)"}, {"('192.0.2.25', 0)"}));
    EXPECT_EQ(m_rows.leftOut, 1U);
    EXPECT_THAT(m_log.lines().at(0).text, "not stored: period 5 of address (none): it has no address");
}

// States are ints in their table: what came from there goes back.
TEST_F(BackupScriptTest, StateIsWrittenAsTheIntThatItWas) {
    m_cache.entry(ip(1))->add(5, Record(1, 1, 1, 1, 1));
    m_cache.entry(ip(1))->state(static_cast<ReputationState>(0xFFFFFFFFU));
    m_cache.entry(ip(2))->add(5, Record(1, 1, 1, 1, 1));
    m_cache.entry(ip(2))->state(static_cast<ReputationState>(77));
    EXPECT_EQ(written(), script({"('10.0.0.1', 5, 1, 1, 1, 1, 1)", "('10.0.0.2', 5, 1, 1, 1, 1, 1)"},
                                {"('10.0.0.1', -1)", "('10.0.0.2', 77)"}));
}

TEST_F(BackupScriptTest, SnapshotIsOneMomentAndNoUse) {
    for (unsigned int n = 0; n < Cache::mostEntries; ++n) {
        m_cache.entry(ip(n))->add(5, Record(n, 0, 0, 0, 0));
    }
    BackupSnapshot const snapshot(m_cache);
    m_cache.find(ip(Cache::mostEntries));
    EXPECT_FALSE(holds(m_cache, ip(0)));
    m_cache.clear();
    std::ostringstream out;
    EXPECT_EQ(snapshot.write(out).records, Cache::mostEntries);
}

} // namespace
} // namespace Vellum::Reputation
