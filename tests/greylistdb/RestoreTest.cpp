// A saved script back into the tables.
#include "tests/support/GreylistTables.h"

#include "greylist/CronJobBackup.h"
#include "tests/support/FakeDatabaseDaemon.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Vellum::GreyList {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class RestoreTest : public GreylistTables {
  protected:
    RestoreTest() {
        run({"insert into grey_list values ('192.0.2.0/24', 'old@b', 'c@d', 1, 2)",
             "insert into autoexempt values ('192.0.2.0/24', 'old.example', 1, 2)"});
    }
    static void expectOldRows() {
        EXPECT_THAT(tupleRows(), ElementsAre("192.0.2.0/24|old@b|c@d|1|2"));
        EXPECT_THAT(exemptionRows(), ElementsAre("192.0.2.0/24|old.example|1|2"));
    }
    // The one record of a restore that failed.
    void expectFailure(std::uint32_t code, std::string const& line, std::string const& part,
                       std::string const& path) const {
        auto const lines = m_log.lines();
        ASSERT_EQ(lines.size(), 1U);
        EXPECT_EQ(lines[0].code, code);
        EXPECT_EQ(lines[0].level, 0);
        EXPECT_EQ(lines[0].format, "%s\x01%d\x01%s\x01%s");
        ASSERT_EQ(lines[0].fields.size(), 4U);
        EXPECT_EQ(lines[0].fields[0], "GlRecordDatabase");
        EXPECT_EQ(lines[0].fields[1], line);
        EXPECT_THAT(lines[0].fields[2], HasSubstr(part));
        EXPECT_EQ(lines[0].fields[3], path);
    }

    std::string const m_script = "LOCK TABLES grey_list WRITE,autoexempt WRITE;\n"
                                 "delete from grey_list;\n"
                                 "INSERT INTO grey_list VALUES\n"
                                 "('192.0.2.0/24', 'new@b', 'c@d', 3,4);\n"
                                 "delete from autoexempt;\n"
                                 ";\n"
                                 "commit;\n"
                                 "UNLOCK TABLES;\n";
};

TEST_F(RestoreTest, ReplacesTheTablesAndLeavesTheCaches) {
    m_tuples.add(tuple(0), Status(1, 2, 3));
    writeFile(scriptPath(), m_script);
    EXPECT_EQ(restoreEntries(scriptPath().c_str()), 0);
    EXPECT_THAT(tupleRows(), ElementsAre("192.0.2.0/24|new@b|c@d|3|4"));
    EXPECT_THAT(exemptionRows(), IsEmpty());
    EXPECT_EQ(tuplesHeld().size(), 1U);
    EXPECT_TRUE(holds(m_tuples, tuple(0)));
    EXPECT_TRUE(m_log.lines().empty());
}

TEST_F(RestoreTest, ScriptOfTwoEmptyCachesEmptiesTheTables) {
    FakeDatabaseDaemon const daemon;
    ASSERT_TRUE(GlRecordDatabase(address()).write());
    EXPECT_EQ(restoreEntries(scriptPath().c_str()), 0);
    EXPECT_THAT(tupleRows(), IsEmpty());
    EXPECT_THAT(exemptionRows(), IsEmpty());
    EXPECT_TRUE(m_log.lines().empty());
}

TEST_F(RestoreTest, MissingFileIsLoggedWithItsPathAndIsNoFailure) {
    EXPECT_EQ(restoreEntries("/nonexistent/saved.sql"), 0);
    expectFailure(0x300019C, "384", "/nonexistent/saved.sql: cannot be opened: No such file or directory",
                  "/nonexistent/saved.sql");
    expectOldRows();
}

TEST_F(RestoreTest, BrokenFileIsLoggedWithItsPathAndChangesNothing) {
    std::string broken = m_script;
    broken.replace(broken.find("3,4"), 3, "3");
    writeFile(scriptPath(), broken);
    EXPECT_EQ(restoreEntries(scriptPath().c_str()), 0);
    expectFailure(0x300019D, "387", "statement 3 (line 3): error 1136", scriptPath());
    expectOldRows();
}

TEST_F(RestoreTest, FileThatWasCutOffChangesNothing) {
    writeFile(scriptPath(), m_script.substr(0, m_script.size() - 15));
    EXPECT_EQ(restoreEntries(scriptPath().c_str()), 0);
    expectFailure(0x300019D, "387", "does not end with UNLOCK TABLES", scriptPath());
    expectOldRows();
}

TEST_F(RestoreTest, DirectoryIsAFileThatIsThere) {
    EXPECT_EQ(restoreEntries(m_directory.path().c_str()), 0);
    expectFailure(0x300019D, "387", "is not a regular file", m_directory.path());
}

TEST_F(RestoreTest, SameWorkWithoutACatchThrows) {
    GlRecordDatabase database(address());
    std::string const missing = m_directory.path() + "/missing";
    EXPECT_THROW(database.runScript(missing), Database::DatabaseException);
    EXPECT_TRUE(m_log.lines().empty());
    writeFile(scriptPath(), m_script);
    std::uint64_t last = 0;
    database.runScript(scriptPath(), [&](std::uint64_t done, std::uint64_t total) {
        EXPECT_EQ(total, m_script.size());
        last = done;
        return true;
    });
    EXPECT_EQ(last, m_script.size());
    EXPECT_THAT(tupleRows(), ElementsAre("192.0.2.0/24|new@b|c@d|3|4"));
}

TEST_F(RestoreTest, AbandonedScriptChangesNothing) {
    writeFile(scriptPath(), m_script);
    EXPECT_THROW(
        GlRecordDatabase(address()).runScript(scriptPath(), [](std::uint64_t, std::uint64_t) { return false; }),
        Database::DatabaseException);
    expectOldRows();
}

} // namespace
} // namespace Vellum::GreyList
