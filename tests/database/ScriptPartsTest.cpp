// What the families' scripts and repairs share.
#include "foundation/database/LeftOut.h"
#include "foundation/database/RowText.h"
#include "foundation/database/ScriptBackup.h"
#include "foundation/database/TableRepair.h"
#include "tests/support/CapturingLogger.h"
#include "tests/support/DatabaseTables.h"
#include "tests/support/FakeDatabaseDaemon.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ctime>

namespace Vellum::Database {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

TEST(RowText, NumbersBeyondAnIntAreItsEnds) {
    EXPECT_EQ(clampedToInt(2147483647), 2147483647);
    EXPECT_EQ(clampedToInt(2147483648), 2147483647);
    EXPECT_EQ(clampedToInt(-2147483648LL), -2147483648LL);
    EXPECT_EQ(clampedToInt(-2147483649LL), -2147483648LL);
    EXPECT_EQ(clampedToInt(0), 0);
}

TEST(RowText, NumbersAreAppendedInDecimal) {
    std::string text = "x";
    appendNumber(text, 0);
    appendNumber(text, std::numeric_limits<std::int64_t>::min());
    appendNumber(text, std::numeric_limits<std::int64_t>::max());
    EXPECT_EQ(text, "x0-92233720368547758089223372036854775807");
}

TEST(RowText, QuotesBackslashesAndControlCharactersNeedEscaping) {
    for (std::string const text : {"'", "\"", "\\", "\x1f", "\x7f", "\n"}) {
        EXPECT_TRUE(needsEscaping("a" + text)) << text;
    }
    EXPECT_TRUE(needsEscaping(std::string(1, '\0')));
    EXPECT_FALSE(needsEscaping("192.0.2.1 ~ \x80\xff %"));
    EXPECT_FALSE(needsEscaping(""));
}

TEST(LeftOut, TwentyAreNamedAndTheOthersCounted) {
    CapturingLogger log;
    LeftOut exactly(0x3000184);
    for (int n = 0; n < 20; ++n) {
        exactly.add("record " + std::to_string(n), "too long");
    }
    exactly.finish();
    ASSERT_EQ(log.records(0x3000184).size(), 20U);
    EXPECT_EQ(log.records()[19].text, "not stored: record 19: too long");
    EXPECT_EQ(log.records()[19].format, "%s");
    log.clear();
    LeftOut more(0x3000184);
    for (int n = 0; n < 23; ++n) {
        more.add(std::string("a\0b", 3), "odd");
    }
    more.finish();
    ASSERT_EQ(log.records(0x3000184).size(), 21U);
    EXPECT_EQ(log.records()[0].text, "not stored: a?b: odd");
    EXPECT_EQ(log.records()[20].text, "3 more records were not stored");
    EXPECT_EQ(more.count(), 23U);
}

class ScriptBackupTest : public testing::Test {
  protected:
    static constexpr std::uint32_t refused = 0x3000184;

    std::string path() const { return m_directory.path() + "/script.sql"; }
    void make(std::string const& text) {
        ScriptBackup backup(m_report);
        backup.write(path(), [&](std::ostream& out) { out << text; });
        backup.handOver(Vellum::DatabaseDaemon::RequestCode::reputationScript, refused);
    }

    CapturingLogger m_log;
    TemporaryDirectory m_directory;
    BackupReport m_report;
};

TEST_F(ScriptBackupTest, AcceptedScriptIsReported) {
    FakeDatabaseDaemon const daemon;
    long const before = std::time(nullptr);
    make("12345");
    EXPECT_TRUE(m_report.attempted);
    EXPECT_TRUE(m_report.accepted);
    EXPECT_EQ(m_report.bytes, 5U);
    EXPECT_EQ(m_report.problem, "");
    EXPECT_GE(m_report.startedAt, before);
    EXPECT_THAT(daemon.requests(), ElementsAre(std::string("\5\0\0\0", 4) + static_cast<char>(path().size() + 1) +
                                               std::string(3, '\0') + path() + '\0'));
    EXPECT_TRUE(m_log.lines().empty());
}

TEST_F(ScriptBackupTest, RefusalIsOneRecordWithABlank) {
    FakeDatabaseDaemon const daemon(5);
    make("12345");
    EXPECT_FALSE(m_report.accepted);
    EXPECT_EQ(m_report.problem,
              "the database daemon did not take the script: the script could not be kept in the journal");
    ASSERT_EQ(m_log.records().size(), 1U);
    EXPECT_EQ(m_log.records()[0].code, refused);
    EXPECT_EQ(m_log.records()[0].format, "%s");
    EXPECT_THAT(m_log.records()[0].fields, ElementsAre(" "));
}

TEST_F(ScriptBackupTest, FailureAfterTheAcceptanceDoesNotTakeItBack) {
    FakeDatabaseDaemon const daemon;
    ScriptBackup backup(m_report);
    backup.hasFailed("before");
    EXPECT_EQ(m_report.problem, "before");
    m_report.problem.clear();
    backup.write(path(), [](std::ostream& out) { out << "x"; });
    backup.handOver(Vellum::DatabaseDaemon::RequestCode::greylistScript, refused);
    backup.hasFailed("afterwards");
    EXPECT_TRUE(m_report.accepted);
    EXPECT_EQ(m_report.problem, "");
}

TEST(FailedBackup, IsAnAttemptWithItsProblem) {
    auto const report = failedBackup<BackupReport>("no server");
    EXPECT_TRUE(report.attempted);
    EXPECT_FALSE(report.accepted);
    EXPECT_EQ(report.problem, "no server");
    EXPECT_NE(report.startedAt, 0);
}

class CompareByteWiseTest : public testing::Test, protected DatabaseTables {
  protected:
    static std::vector<std::string> repair(unsigned int textBytes) {
        Connection connection(address(), databaseName);
        std::vector<std::string> changes;
        compareByteWise(connection, "t", textBytes, changes);
        return changes;
    }
};

TEST_F(CompareByteWiseTest, ColumnsKeepTheirSizeAndNumbersAreLeftAlone) {
    run({"create table t (a varchar(36) not null, n int not null, b varchar(36) not null, primary key (a)) "
         "character set utf8mb4 collate utf8mb4_general_ci"});
    EXPECT_THAT(repair(36), ElementsAre("table t took texts that differ in letter case or trailing blanks for equal: "
                                        "now compared byte by byte"));
    EXPECT_THAT(server().query("select COLUMN_NAME, COLUMN_TYPE, COLLATION_NAME from information_schema.COLUMNS where "
                               "TABLE_SCHEMA = 'fe_sender_history' order by ORDINAL_POSITION"),
                ElementsAre("a|varchar(36)|latin1_nopad_bin", "n|int(11)|", "b|varchar(36)|latin1_nopad_bin"));
    run({"insert into t values ('a', 1, 'x'), ('A', 1, 'x'), ('a ', 1, 'x')"});
    EXPECT_THAT(repair(36), IsEmpty());
}

TEST_F(CompareByteWiseTest, ColumnsAreFoundByName) {
    run({"create table t (a int)"});
    Connection connection(address(), databaseName);
    EXPECT_TRUE(hasColumn(connection, "t", "a"));
    EXPECT_FALSE(hasColumn(connection, "t", "b"));
    EXPECT_FALSE(hasColumn(connection, "missing", "a"));
}

} // namespace
} // namespace Vellum::Database
