// From the caches into a script, and to the database daemon.
#include "tests/support/GreylistTables.h"

#include "foundation/DetachedBackup.h"
#include "greylist/BackupReport.h"
#include "greylist/CronJobBackup.h"
#include "tests/support/FakeDatabaseDaemon.h"
#include "tests/support/UnreachableServer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <sys/resource.h>
#include <sys/stat.h>
#include <thread>

namespace Vellum::GreyList {
namespace {

using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

constexpr char const* emptyScript =
    "LOCK TABLES grey_list WRITE,autoexempt WRITE;\ndelete from grey_list;\ndelete from "
    "autoexempt;\n;\ncommit;\nUNLOCK TABLES;\n";

class BackupTest : public GreylistTables {
  protected:
    ~BackupTest() override { EXPECT_TRUE(DetachedBackup::waitForAll(CapturingLogger::patience)); }

    static bool write() { return GlRecordDatabase(address()).write(); }
    // Names in the script's directory, hidden ones included.
    Rows files() const {
        Rows names;
        for (auto const& entry : std::filesystem::directory_iterator(m_directory.path())) {
            names.push_back(entry.path().filename().string());
        }
        return names;
    }
    // The daemon was asked, and did not accept.
    void expectRefusedRecord() const {
        auto const records = m_log.records();
        ASSERT_EQ(records.size(), 1U);
        EXPECT_EQ(records[0].code, 0x300019AU);
        EXPECT_EQ(records[0].level, 0);
        EXPECT_EQ(records[0].format, "%s");
        EXPECT_THAT(records[0].fields, ElementsAre(" "));
    }
    // The one record of a backup that failed before the daemon was asked.
    void expectFailedRecord(std::string const& begin) const {
        auto const records = m_log.lines();
        ASSERT_EQ(records.size(), 1U);
        EXPECT_EQ(records[0].code, 0x300019BU);
        EXPECT_EQ(records[0].format, "%s\x01%d\x01%s");
        ASSERT_EQ(records[0].fields.size(), 3U);
        EXPECT_EQ(records[0].fields[0], "GlRecordDatabase");
        EXPECT_EQ(records[0].fields[1], "366");
        EXPECT_THAT(records[0].fields[2], StartsWith(begin));
    }
};

TEST_F(BackupTest, ScriptOfEmptyCachesIsHandedToTheDaemon) {
    FakeDatabaseDaemon daemon;
    EXPECT_TRUE(write());
    EXPECT_EQ(contentOf(scriptPath()), emptyScript);
    std::int32_t const code = 4;
    auto const length = static_cast<std::int32_t>(scriptPath().size() + 1);
    std::string expected(8, '\0');
    std::memcpy(expected.data(), &code, 4);
    std::memcpy(expected.data() + 4, &length, 4);
    expected += scriptPath() + '\0';
    EXPECT_THAT(daemon.requests(), ElementsAre(expected));
    EXPECT_EQ(m_configuration->backupsDone, 1);
    EXPECT_TRUE(m_log.lines().empty());
}

TEST_F(BackupTest, ScriptIsWholeWhenTheDaemonIsAsked) {
    for (unsigned int n = 0; n < 3000; ++n) {
        m_tuples.add(tuple(n), Status(1, 2, 0));
    }
    FakeDatabaseDaemon daemon;
    std::string seen;
    daemon.onRequest = [&](std::string const&) {
        seen = contentOf(scriptPath());
    };
    EXPECT_TRUE(write());
    EXPECT_THAT(seen, StartsWith("LOCK TABLES grey_list WRITE,autoexempt WRITE;\n"));
    EXPECT_THAT(seen, EndsWith(";\ncommit;\nUNLOCK TABLES;\n"));
    EXPECT_EQ(seen, contentOf(scriptPath()));
    EXPECT_THAT(files(), ElementsAre("greylist.sql")) << "nothing temporary is left";
}

TEST_F(BackupTest, ScriptIsItsOwnersAloneAndReplacesTheLastOne) {
    writeFile(scriptPath(), std::string(100000, 'x'));
    ASSERT_EQ(chmod(scriptPath().c_str(), 0666), 0);
    FakeDatabaseDaemon const daemon;
    EXPECT_TRUE(write());
    EXPECT_EQ(contentOf(scriptPath()), emptyScript);
    struct stat status {};
    ASSERT_EQ(stat(scriptPath().c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0600U);
}

TEST_F(BackupTest, NoDatabaseCallIsMadeWhileTheLocksAreHeld) {
    m_tuples.add(tuple(0), Status(1, 2, 0));
    FakeDatabaseDaemon daemon;
    int decided = -1;
    daemon.onRequest = [&](std::string const&) {
        decided = m_tuples.state(tuple(1), 5);
    };
    EXPECT_TRUE(write());
    EXPECT_EQ(decided, 0) << "a new tuple needs the lock alone";
}

TEST_F(BackupTest, RefusalIsLoggedWithABlankAndTheConfigurationIsToldAllTheSame) {
    FakeDatabaseDaemon const daemon(5);
    EXPECT_FALSE(write());
    expectRefusedRecord();
    EXPECT_EQ(m_configuration->backupsDone, 1);
    EXPECT_EQ(contentOf(scriptPath()), emptyScript) << "the script stays";
    EXPECT_FALSE(BackupReport::last().accepted);
    EXPECT_THAT(BackupReport::last().problem, HasSubstr("the script could not be kept in the journal"));
}

TEST_F(BackupTest, AbsentDaemonIsARefusal) {
    AbsentDatabaseDaemon const nobody;
    EXPECT_FALSE(write());
    expectRefusedRecord();
    EXPECT_EQ(m_configuration->backupsDone, 1);
    EXPECT_THAT(BackupReport::last().problem, HasSubstr("the daemon cannot be reached"));
}

TEST_F(BackupTest, DirectoryThatIsNotThereFailsAndNobodyIsAsked) {
    FakeDatabaseDaemon const daemon;
    m_configuration->path = m_directory.path() + "/missing/greylist.sql";
    EXPECT_FALSE(write());
    expectFailedRecord("File::basic_ofstream (code 4, File): cannot open " + m_configuration->path);
    EXPECT_THAT(daemon.requests(), IsEmpty());
    EXPECT_EQ(m_configuration->backupsDone, 0);
    EXPECT_FALSE(BackupReport::last().accepted);
    EXPECT_THAT(BackupReport::last().problem, HasSubstr("cannot open"));
}

TEST_F(BackupTest, FullDiskFailsAndKeepsTheLastScript) {
    FakeDatabaseDaemon const daemon;
    writeFile(scriptPath(), "the last one");
    for (unsigned int n = 0; n < 100; ++n) {
        m_tuples.add(tuple(n), Status(1, 2, 0));
    }
    struct rlimit before {};
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &before), 0);
    struct rlimit const small{1000, before.rlim_max};
    auto const ignored = std::signal(SIGXFSZ, SIG_IGN);
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
    bool const accepted = write();
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &before), 0);
    std::signal(SIGXFSZ, ignored);
    EXPECT_FALSE(accepted);
    expectFailedRecord("File::basic_ofstream (code 4, File): cannot write " + scriptPath() + ": File too large");
    EXPECT_THAT(daemon.requests(), IsEmpty());
    EXPECT_EQ(m_configuration->backupsDone, 0);
    EXPECT_EQ(contentOf(scriptPath()), "the last one");
    EXPECT_THAT(files(), ElementsAre("greylist.sql"));
}

TEST_F(BackupTest, ConfigurationThatThrowsFails) {
    FakeDatabaseDaemon const daemon;
    m_configuration->path.clear();
    EXPECT_FALSE(write());
    expectFailedRecord("AdjustableConfiguration::backupPath (code 4): none is set");
    EXPECT_THAT(daemon.requests(), IsEmpty());
}

TEST_F(BackupTest, ServerThatIsAwayFailsBeforeAnythingIsWritten) {
    FakeDatabaseDaemon const daemon;
    GlRecordDatabase database(address());
    UnreachableServer const away;
    EXPECT_FALSE(database.write());
    expectFailedRecord("Connection (code 4)");
    EXPECT_THAT(daemon.requests(), IsEmpty());
    EXPECT_THAT(files(), IsEmpty());
    EXPECT_EQ(m_configuration->backupsDone, 0);
}

TEST_F(BackupTest, AccountThatMayUseItsOwnDatabaseOnlySuffices) {
    server().run({"CREATE USER 'only'@'127.0.0.1' IDENTIFIED BY 'own'",
                  "GRANT ALL ON fe_sender_history.* TO 'only'@'127.0.0.1'"});
    Database::Server account = server().account();
    account.user = "only";
    account.password = "own";
    {
        InstalledServer const installed(account);
        FakeDatabaseDaemon const daemon;
        m_tuples.add(tuple("192.0.2.0/24", "a@b", "c@d"), Status(1, 2, 0));
        EXPECT_TRUE(write());
        EXPECT_EQ(restoreEntries(scriptPath().c_str()), 0);
        m_tuples.clear();
        read();
        EXPECT_THAT(tuplesHeld(), ElementsAre("192.0.2.0/24 a@b c@d 1 2 0"));
        EXPECT_TRUE(m_log.lines().empty());
    }
    server().run({"DROP USER 'only'@'127.0.0.1'"});
}

TEST_F(BackupTest, ServerOnASocketIsFoundThroughTheMap) {
    server().run({"CREATE USER 'local'@'localhost' IDENTIFIED BY 'own'",
                  "GRANT ALL ON fe_sender_history.* TO 'local'@'localhost'"});
    Database::Server account;
    account.host = "192.0.2.1"; // unused
    account.socket = server().socket();
    account.user = "local";
    account.password = "own";
    {
        InstalledServer const installed(account);
        FakeDatabaseDaemon const daemon;
        EXPECT_TRUE(write());
        EXPECT_EQ(daemon.requests().size(), 1U);
    }
    server().run({"DROP USER 'local'@'localhost'"});
}

TEST_F(BackupTest, ReportTellsWhatTheScriptHolds) {
    FakeDatabaseDaemon const daemon;
    m_tuples.add(tuple(0), Status(1, 2, 0));
    m_tuples.add(tuple(1), Status(1, 2, 0));
    m_tuples.add(tuple("192.0.2.0/24", std::string(129, 'x'), "c@d"), Status(1, 2, 0));
    m_exemptions.add(exemption(0), Status(1, 2, 0));
    long const before = std::time(nullptr);
    EXPECT_TRUE(write());
    BackupReport const report = BackupReport::last();
    EXPECT_TRUE(report.attempted);
    EXPECT_TRUE(report.accepted);
    EXPECT_GE(report.startedAt, before);
    EXPECT_LE(report.startedAt, std::time(nullptr));
    EXPECT_EQ(report.tuples, 2U);
    EXPECT_EQ(report.exemptions, 1U);
    EXPECT_EQ(report.leftOut, 1U);
    EXPECT_EQ(report.bytes, contentOf(scriptPath()).size());
    EXPECT_EQ(report.problem, "");
    EXPECT_THAT(m_log.lines().at(0).text, HasSubstr("not stored: tuple"));
}

TEST_F(BackupTest, JobWritesTheScriptOnAThreadOfItsOwn) {
    FakeDatabaseDaemon daemon;
    m_tuples.add(tuple(0), Status(1, 2, 0));
    EXPECT_EQ(CronJobBackup().task(), 0);
    ASSERT_TRUE(DetachedBackup::waitForAll(CapturingLogger::patience));
    EXPECT_EQ(daemon.requests().size(), 1U);
    EXPECT_EQ(m_configuration->backupsDone, 1);
    EXPECT_THAT(contentOf(scriptPath()), HasSubstr("sender1000000@example.net"));
    EXPECT_TRUE(m_log.lines().empty());
}

TEST_F(BackupTest, OneRunsAtATimeAndEveryScriptIsWhole) {
    for (unsigned int n = 0; n < 2000; ++n) {
        m_tuples.add(tuple(n), Status(1, 2, 0));
    }
    FakeDatabaseDaemon daemon;
    std::size_t whole = 0;
    daemon.onRequest = [&](std::string const&) {
        std::string const script = contentOf(scriptPath());
        whole += script.starts_with("LOCK TABLES") && script.ends_with("UNLOCK TABLES;\n") ? 1 : 0;
    };
    std::vector<std::thread> writers;
    for (int n = 0; n < 4; ++n) {
        writers.emplace_back([] { EXPECT_TRUE(write()); });
    }
    for (int n = 0; n < 50; ++n) {
        m_tuples.state(tuple(static_cast<unsigned int>(3000 + n)), 5);
    }
    for (auto& writer : writers) {
        writer.join();
    }
    EXPECT_EQ(daemon.requests().size(), 4U);
    EXPECT_EQ(whole, 4U);
    EXPECT_EQ(m_configuration->backupsDone, 4);
    EXPECT_THAT(files(), ElementsAre("greylist.sql"));
}

} // namespace
} // namespace Vellum::GreyList
