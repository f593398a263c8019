#include "daemon/LastBackup.h"

#include "tests/support/CapturingLogger.h"
#include "tests/support/FakeDatabaseDaemon.h"
#include "tests/support/ReputationCache.h"
#include "tests/support/ReputationConfiguration.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>

namespace Vellum::Daemon {
namespace {

using testing::ElementsAre;

class LastBackupTest : public Reputation::ReputationCache {
  protected:
    LastBackupTest() {
        m_backup.take = [this] {
            m_done += "take ";
        };
        m_backup.takeWithoutServer = [this] {
            m_done += "without ";
        };
        m_backup.outcome = [] {
            return LastBackup::Outcome{true, "3 things"};
        };
    }

    LastBackup m_backup;
    std::string m_done;
};

TEST_F(LastBackupTest, SaysWhatIsWithTheDatabaseDaemon) {
    takeLastBackup(m_backup);
    EXPECT_EQ(m_done, "take ");
    EXPECT_THAT(m_log.notes(), ElementsAre("last backup: 3 things are with the database daemon"));
}

TEST_F(LastBackupTest, WithoutTheServerItIsMadeAllTheSame) {
    m_backup.take = [] {
        throw std::runtime_error("away");
    };
    takeLastBackup(m_backup);
    EXPECT_EQ(m_done, "without ");
    EXPECT_THAT(m_log.notes(), ElementsAre("the last backup is made without the database: away",
                                           "last backup: 3 things are with the database daemon"));
}

TEST_F(LastBackupTest, IsNotMadeWhenSettingsOrAFailedLoadForbidIt) {
    m_backup.of = " of sender reputation";
    m_backup.enabled = false;
    takeLastBackup(m_backup);
    m_backup.enabled = true;
    m_backup.problem = "row 3";
    takeLastBackup(m_backup);
    EXPECT_EQ(m_done, "");
    EXPECT_THAT(m_log.notes(),
                ElementsAre("no last backup of sender reputation: backups are switched off in the settings",
                            "no last backup of sender reputation: row 3"));
}

TEST_F(LastBackupTest, FailureIsSaidAndGoesNoFurther) {
    m_backup.take = m_backup.takeWithoutServer = [] {
        throw std::runtime_error("no disk");
    };
    takeLastBackup(m_backup);
    m_backup.take = [] {
    };
    m_backup.outcome = [] {
        return LastBackup::Outcome{false, "nobody answered"};
    };
    takeLastBackup(m_backup);
    EXPECT_EQ(m_log.notes().at(1), "the last backup failed, what came after the one before is lost: no disk");
    EXPECT_EQ(m_log.notes().at(2), "the last backup failed, what came after the one before is lost: nobody answered");
}

TEST_F(LastBackupTest, OfSenderReputationNeedsNoServer) {
    FakeDatabaseDaemon const daemon;
    Reputation::InstalledConfiguration const configuration;
    TemporaryDirectory const directory;
    m_cache.entry(Reputation::ip("192.0.2.1"))->add(5, Reputation::Entry::Record(1, 1, 1, 1, 1));
    takeLastBackup(lastReputationBackup(directory.path() + "/reputation.sql"));
    EXPECT_THAT(m_log.notes(), ElementsAre("last backup of sender reputation: 1 hours of 1 addresses are with the "
                                           "database daemon"));
    EXPECT_EQ(daemon.requests().size(), 1U);
}

} // namespace
} // namespace Vellum::Daemon
