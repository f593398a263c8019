// The backup job and the restore where there is no database.
#include "reputation/CronJobBackup.h"

#include "foundation/DetachedBackup.h"
#include "reputation/BackupReport.h"
#include "tests/support/CapturingLogger.h"
#include "tests/support/FakeDatabaseDaemon.h"
#include "tests/support/ReputationConfiguration.h"
#include "tests/support/UnreachableServer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Vellum::Reputation {
namespace {

using testing::StartsWith;

class CronJobBackupTest : public testing::Test {
  protected:
    ~CronJobBackupTest() override { EXPECT_TRUE(DetachedBackup::waitForAll(CapturingLogger::patience)); }

    CapturingLogger m_log;
    UnreachableServer m_away;
    AbsentDatabaseDaemon m_nobody;
};

TEST_F(CronJobBackupTest, DisabledItDoesNothing) {
    InstalledConfiguration configuration;
    configuration.enabled = false;
    EXPECT_EQ(CronJobBackup().task(), 0);
    EXPECT_TRUE(DetachedBackup::waitForAll(CapturingLogger::patience));
    EXPECT_TRUE(m_log.lines().empty());
}

TEST_F(CronJobBackupTest, EnabledItStartsABackupWhoseFailureIsLogged) {
    InstalledConfiguration const configuration;
    BackupReport::set({});
    EXPECT_EQ(CronJobBackup().task(), 0);
    auto const record = m_log.waitForRecord(0x300018A);
    ASSERT_TRUE(record.has_value());
    EXPECT_EQ(record->format, "%s");
    EXPECT_THAT(record->text, StartsWith("Connection (code 4)"));
    ASSERT_TRUE(DetachedBackup::waitForAll(CapturingLogger::patience));
    EXPECT_TRUE(BackupReport::last().attempted);
    EXPECT_FALSE(BackupReport::last().accepted);
    EXPECT_THAT(BackupReport::last().problem, StartsWith("Connection (code 4)"));
    EXPECT_EQ(configuration.backupsDone, 0);
}

TEST_F(CronJobBackupTest, WithoutAConfigurationTheJobFailsWithItsRecord) {
    EXPECT_EQ(CronJobBackup().task(), -1);
    ASSERT_EQ(m_log.lines().size(), 1U);
    EXPECT_EQ(m_log.lines()[0].code, 0x3000189U);
    EXPECT_EQ(m_log.lines()[0].format, "%s");
    EXPECT_THAT(m_log.lines()[0].text, testing::EndsWith("Reputation::Configuration is null"));
}

TEST_F(CronJobBackupTest, RestoreWithoutADatabaseFailsWithItsRecord) {
    EXPECT_EQ(restoreEntries("/nowhere.sql"), -1);
    ASSERT_EQ(m_log.records().size(), 1U);
    EXPECT_EQ(m_log.records()[0].code, 0x300018AU);
    EXPECT_THAT(m_log.records()[0].text, StartsWith("Connection (code 4)"));
}

} // namespace
} // namespace Vellum::Reputation
