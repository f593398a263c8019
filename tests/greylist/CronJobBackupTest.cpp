// The backup job, the restore and the reload where there is no database.
#include "greylist/CronJobBackup.h"

#include "foundation/DetachedBackup.h"
#include "greylist/BackupReport.h"
#include "greylist/GlDisplay.h"
#include "tests/support/OwnProcess.h"
#include "tests/support/ProcessCaches.h"
#include "tests/support/ScriptedSocket.h"
#include "tests/support/UnreachableServer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Vellum::GreyList {
namespace {

using testing::HasSubstr;
using testing::StartsWith;

class CronJobBackupTest : public ProcessCaches {
  protected:
    ~CronJobBackupTest() override { EXPECT_TRUE(DetachedBackup::waitForAll(CapturingLogger::patience)); }

    UnreachableServer m_server;
    CronJobBackup m_job;
};

TEST_F(CronJobBackupTest, DisabledItDoesNothing) {
    m_configuration->enabled = false;
    EXPECT_EQ(m_job.task(), 0);
    EXPECT_EQ(DetachedBackup::running(), 0U);
    EXPECT_TRUE(m_log.lines().empty());
}

TEST_F(CronJobBackupTest, EnabledItStartsABackupAndDoesNotWaitForIt) {
    EXPECT_EQ(m_job.task(), 0) << "how it ends is not its business";
    auto const failed = m_log.waitForRecord(0x30001A3);
    ASSERT_TRUE(failed.has_value());
    EXPECT_EQ(failed->format, "%s");
    EXPECT_THAT(failed->text, StartsWith("Connection (code 4)"));
    ASSERT_TRUE(DetachedBackup::waitForAll(CapturingLogger::patience));
    BackupReport const report = BackupReport::last();
    EXPECT_TRUE(report.attempted);
    EXPECT_FALSE(report.accepted);
    EXPECT_THAT(report.problem, StartsWith("Connection (code 4)"));
    EXPECT_EQ(m_configuration->backupsDone, 0);
}

TEST_F(CronJobBackupTest, FailureOfTheConfigurationIsLogged) {
    m_configuration->enabledThrows = true;
    EXPECT_EQ(m_job.task(), -1);
    auto const lines = m_log.lines();
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_EQ(lines[0].code, 0x300019FU);
    EXPECT_EQ(lines[0].format, "%s");
    EXPECT_EQ(lines[0].text, "AdjustableConfiguration::backupEnabled (code 4)");
    EXPECT_EQ(DetachedBackup::running(), 0U);
}

TEST(CronJobBackupDeathTest, WithoutAConfigurationItFails) {
    expectInOwnProcess([] {
        CapturingLogger log;
        EXPECT_EQ(CronJobBackup().task(), -1);
        ASSERT_EQ(log.lines().size(), 1U);
        EXPECT_EQ(log.lines()[0].code, 0x300019FU);
        EXPECT_EQ(log.lines()[0].text, "operator-> (code 1, include2/VellumRefcounted:359)");
    });
}

TEST_F(CronJobBackupTest, BackupOnRequestAnswersAtOnce) {
    EXPECT_EQ(backupEntries(), 0);
    EXPECT_TRUE(m_log.waitForRecord(0x30001A3).has_value());
}

TEST_F(CronJobBackupTest, RestoreWithoutADatabaseFails) {
    EXPECT_EQ(restoreEntries("/nonexistent"), -1);
    auto const lines = m_log.lines();
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_EQ(lines[0].code, 0x30001A3U);
    EXPECT_EQ(lines[0].format, "%s");
    EXPECT_THAT(lines[0].text, StartsWith("Connection (code 4)"));
}

TEST_F(CronJobBackupTest, ReloadWithoutADatabaseFailsAndKeepsTheCaches) {
    m_tuples.add(tuple(0), Status(1, 2, 3));
    ScriptedClient client;
    EXPECT_EQ(UpdatedHandler().task(client.connection, IPC::Pdu(9, 0U)), -1);
    EXPECT_EQ(client.socket.sent, "");
    auto const lines = m_log.lines();
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_EQ(lines[0].code, 0x30001A2U);
    EXPECT_EQ(lines[0].format, "%s");
    EXPECT_THAT(lines[0].text, HasSubstr("Connection (code 4)"));
    EXPECT_TRUE(holds(m_tuples, tuple(0)));
}

} // namespace
} // namespace Vellum::GreyList
