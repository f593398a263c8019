// From the cache into a script, to the database daemon, and back through a restore.
#include "tests/support/ReputationTables.h"

#include "foundation/DetachedBackup.h"
#include "reputation/CronJobBackup.h"
#include "tests/support/FakeDatabaseDaemon.h"
#include "tests/support/RandomSource.h"
#include "tests/support/UnreachableServer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <ctime>
#include <filesystem>
#include <thread>

namespace Vellum::Reputation {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

using Record = Entry::Record;

constexpr char const* emptyScript = "LOCK TABLES sender_reputation WRITE,sender_reputation_state WRITE;\ndelete from "
                                    "sender_reputation;\ndelete from sender_reputation_state;\n\nUNLOCK TABLES;\n";

class BackupTest : public ReputationTables {
  protected:
    ~BackupTest() override { EXPECT_TRUE(DetachedBackup::waitForAll(CapturingLogger::patience)); }

    bool write() const { return Database(DatabaseTables::address()).write(scriptPath()); }
    Rows files() const {
        Rows names;
        for (auto const& entry : std::filesystem::directory_iterator(m_directory.path())) {
            names.push_back(entry.path().filename().string());
        }
        return names;
    }
};

TEST_F(BackupTest, ScriptOfAnEmptyCacheIsHandedToTheDaemon) {
    FakeDatabaseDaemon daemon;
    EXPECT_TRUE(write());
    EXPECT_EQ(contentOf(scriptPath()), emptyScript);
    std::int32_t const code = 5;
    auto const length = static_cast<std::int32_t>(scriptPath().size() + 1);
    std::string expected(8, '\0');
    std::memcpy(expected.data(), &code, 4);
    std::memcpy(expected.data() + 4, &length, 4);
    expected += scriptPath() + '\0';
    EXPECT_THAT(daemon.requests(), ElementsAre(expected));
    EXPECT_EQ(m_configuration.backupsDone, 1);
    EXPECT_TRUE(m_log.lines().empty());
    EXPECT_THAT(files(), ElementsAre("reputation.sql"));
}

// What is told of a backup may take a while, which is no part of it.
TEST_F(BackupTest, ReportIsThereWhenTheConfigurationIsTold) {
    BackupReport::set({});
    FakeDatabaseDaemon const daemon;
    bool accepted = false;
    m_configuration.onBackupDone = [&] {
        accepted = BackupReport::last().accepted;
    };
    EXPECT_TRUE(write());
    EXPECT_TRUE(accepted);
}

TEST_F(BackupTest, RefusalIsLoggedWithABlankAndTheConfigurationIsToldAllTheSame) {
    FakeDatabaseDaemon const daemon(5);
    EXPECT_FALSE(write());
    auto const records = m_log.records();
    ASSERT_EQ(records.size(), 1U);
    EXPECT_EQ(records[0].code, 0x3000184U);
    EXPECT_EQ(records[0].format, "%s");
    EXPECT_THAT(records[0].fields, ElementsAre(" "));
    EXPECT_EQ(m_configuration.backupsDone, 1);
    EXPECT_EQ(contentOf(scriptPath()), emptyScript) << "the script stays";
    EXPECT_FALSE(BackupReport::last().accepted);
    EXPECT_THAT(BackupReport::last().problem, HasSubstr("the script could not be kept in the journal"));
}

TEST_F(BackupTest, FileThatCannotBeWrittenIsThrownAndNobodyIsAsked) {
    FakeDatabaseDaemon const daemon;
    Database database(DatabaseTables::address());
    std::string const path = m_directory.path() + "/missing/reputation.sql";
    auto const refused = refusalOf([&] { database.write(path); });
    ASSERT_TRUE(refused.has_value());
    EXPECT_THAT(refused->asString(), StartsWith("File::basic_ofstream (code 4, File): cannot open " + path));
    EXPECT_THAT(daemon.requests(), IsEmpty());
    EXPECT_EQ(m_configuration.backupsDone, 0);
    EXPECT_TRUE(BackupReport::last().attempted);
    EXPECT_THAT(BackupReport::last().problem, HasSubstr("cannot open"));
    EXPECT_TRUE(m_log.lines().empty()) << "the caller logs it";
}

TEST_F(BackupTest, LocksAreFreeWhileTheDaemonIsAsked) {
    RefEntry const entry = m_cache.entry(ip("192.0.2.25"));
    FakeDatabaseDaemon daemon;
    daemon.onRequest = [&](std::string const&) {
        entry->increment(Entry::AttributeType::MessageCount, 5, 1);
        m_cache.find(ip("192.0.2.26"));
    };
    EXPECT_TRUE(write());
    EXPECT_THAT(held(), ElementsAre("192.0.2.25 0: 5=1/0/0/0/0", "192.0.2.26 0:"));
}

TEST_F(BackupTest, ReportTellsWhatTheScriptHolds) {
    FakeDatabaseDaemon const daemon;
    m_cache.entry(ip(1))->add(5, Record(1, 1, 1, 1, 1));
    m_cache.entry(ip(1))->add(6, Record(1, 1, 1, 1, 1));
    m_cache.entry(ip(2))->add(0xFFFFFFFFU, Record(1, 1, 1, 1, 1));
    m_cache.find(ip(3));
    long const before = std::time(nullptr);
    EXPECT_TRUE(write());
    BackupReport const report = BackupReport::last();
    EXPECT_TRUE(report.attempted);
    EXPECT_TRUE(report.accepted);
    EXPECT_GE(report.startedAt, before);
    EXPECT_EQ(report.records, 2U);
    EXPECT_EQ(report.addresses, 2U);
    EXPECT_EQ(report.leftOut, 1U);
    EXPECT_EQ(report.bytes, contentOf(scriptPath()).size());
    EXPECT_EQ(report.problem, "");
}

TEST_F(BackupTest, JobWritesTheScriptOnAThreadOfItsOwn) {
    FakeDatabaseDaemon daemon;
    m_cache.entry(ip("192.0.2.25"))->add(5, Record(1, 1, 1, 1, 1));
    EXPECT_EQ(CronJobBackup().task(), 0);
    ASSERT_TRUE(DetachedBackup::waitForAll(CapturingLogger::patience));
    EXPECT_EQ(daemon.requests().size(), 1U);
    EXPECT_EQ(m_configuration.backupsDone, 1);
    EXPECT_THAT(contentOf(scriptPath()), HasSubstr("\n('192.0.2.25', 5, 1, 1, 1, 1, 1)"));
    EXPECT_TRUE(m_log.lines().empty());
}

TEST_F(BackupTest, ThreadThatCannotWriteLogsItsOneRecordAndKeepsTheReport) {
    FakeDatabaseDaemon const daemon;
    m_configuration.path = m_directory.path() + "/missing/reputation.sql";
    EXPECT_EQ(backupEntries(), 0);
    ASSERT_TRUE(DetachedBackup::waitForAll(CapturingLogger::patience));
    ASSERT_EQ(m_log.lines().size(), 1U);
    EXPECT_EQ(m_log.lines()[0].code, 0x300018AU);
    EXPECT_EQ(m_log.lines()[0].format, "%s");
    EXPECT_THAT(m_log.lines()[0].text, StartsWith("File::basic_ofstream (code 4, File): cannot open"));
    EXPECT_THAT(BackupReport::last().problem, HasSubstr("cannot open"));
    m_log.clear();
    m_configuration.path.clear();
    EXPECT_EQ(backupEntries(), 0);
    ASSERT_TRUE(DetachedBackup::waitForAll(CapturingLogger::patience));
    ASSERT_EQ(m_log.lines().size(), 1U);
    EXPECT_EQ(m_log.lines()[0].code, 0x300018AU);
    EXPECT_THAT(BackupReport::last().problem, HasSubstr("none is set"));
}

TEST_F(BackupTest, ScriptIsMadeWithoutTheServerToo) {
    FakeDatabaseDaemon daemon;
    m_cache.entry(ip("192.0.2.25"))->add(5, Record(1, 1, 1, 1, 1));
    UnreachableServer const away;
    EXPECT_TRUE(Database::writeScript(scriptPath()));
    EXPECT_EQ(daemon.requests().size(), 1U);
}

TEST_F(BackupTest, ScriptsAreWrittenOneAtATimeAndEachIsWhole) {
    for (unsigned int n = 0; n < 500; ++n) {
        m_cache.entry(ip(n))->add(5, Record(n, n, n, n, n));
    }
    FakeDatabaseDaemon daemon;
    std::size_t whole = 0;
    daemon.onRequest = [&](std::string const&) {
        std::string const script = contentOf(scriptPath());
        whole += script.starts_with("LOCK TABLES") && script.ends_with("\nUNLOCK TABLES;\n") ? 1 : 0;
    };
    std::vector<std::thread> writers;
    for (int n = 0; n < 4; ++n) {
        writers.emplace_back([this] { EXPECT_TRUE(write()); });
    }
    for (auto& writer : writers) {
        writer.join();
    }
    EXPECT_EQ(whole, 4U);
    EXPECT_EQ(m_configuration.backupsDone, 4);
}

class RestoreTest : public BackupTest {
  protected:
    void expectFailure(std::uint32_t code, std::string const& line, std::string const& part,
                       std::string const& path) const {
        auto const records = m_log.records();
        ASSERT_EQ(records.size(), 1U);
        EXPECT_EQ(records[0].code, code);
        EXPECT_EQ(records[0].format, "%s\x01%d\x01%s\x01%s");
        ASSERT_EQ(records[0].fields.size(), 4U);
        EXPECT_EQ(records[0].fields[0], "ReputationDatabase");
        EXPECT_EQ(records[0].fields[1], line);
        EXPECT_THAT(records[0].fields[2], HasSubstr(part));
        EXPECT_EQ(records[0].fields[3], path);
    }
};

TEST_F(RestoreTest, ScriptReplacesBothTablesAndIsReadOnlyWhenAskedFor) {
    FakeDatabaseDaemon const daemon;
    run({"insert into sender_reputation values ('192.0.2.99', 5, 1, 2, 3, 4, 5)",
         "insert into sender_reputation_state values ('192.0.2.99', 1)"});
    m_cache.entry(ip("192.0.2.25"))->add(5, Record(1, 2, 3, 4, 5));
    m_cache.entry(ip("192.0.2.25"))->state(ReputationState::trusted);
    ASSERT_TRUE(write());
    m_cache.clear();
    EXPECT_EQ(restoreEntries(scriptPath().c_str()), 0);
    EXPECT_THAT(recordRows(), ElementsAre("192.0.2.25|5|1|2|3|4|5"));
    EXPECT_THAT(stateRows(), ElementsAre("192.0.2.25|1"));
    EXPECT_THAT(held(), IsEmpty());
    read();
    EXPECT_THAT(held(), ElementsAre("192.0.2.25 1: 5=1/2/3/4/5"));
    EXPECT_TRUE(m_log.lines().empty());
}

TEST_F(RestoreTest, ScriptOfAnEmptyCacheEmptiesTheTables) {
    FakeDatabaseDaemon const daemon;
    run({"insert into sender_reputation values ('192.0.2.99', 5, 1, 2, 3, 4, 5)",
         "insert into sender_reputation_state values ('192.0.2.99', 1)"});
    ASSERT_TRUE(write());
    EXPECT_EQ(restoreEntries(scriptPath().c_str()), 0);
    EXPECT_THAT(recordRows(), IsEmpty());
    EXPECT_THAT(stateRows(), IsEmpty());
}

TEST_F(RestoreTest, MissingFileIsLoggedAndIsNoFailure) {
    EXPECT_EQ(restoreEntries("/nonexistent/saved.sql"), 0);
    expectFailure(0x3000186, "350", "/nonexistent/saved.sql: cannot be opened: No such file or directory",
                  "/nonexistent/saved.sql");
}

TEST_F(RestoreTest, BrokenFileIsLoggedAndChangesNothing) {
    FakeDatabaseDaemon const daemon;
    run({"insert into sender_reputation values ('192.0.2.99', 5, 1, 2, 3, 4, 5)",
         "insert into sender_reputation_state values ('192.0.2.99', 1)"});
    m_cache.entry(ip("192.0.2.25"))->add(5, Record(1, 2, 3, 4, 5));
    ASSERT_TRUE(write());
    std::string broken = contentOf(scriptPath());
    broken.replace(broken.find("4, 5)"), 4, "4");
    writeFile(scriptPath(), broken);
    EXPECT_EQ(restoreEntries(scriptPath().c_str()), 0);
    expectFailure(0x3000187, "353", "error 1136", scriptPath());
    EXPECT_THAT(recordRows(), ElementsAre("192.0.2.99|5|1|2|3|4|5"));
    EXPECT_THAT(stateRows(), ElementsAre("192.0.2.99|1"));
}

// What a table can hold comes back as it was; of random entries, awkward addresses among them.
TEST_F(RestoreTest, RoundTripOfRandomEntriesLosesNothing) {
    RandomSource random;
    FakeDatabaseDaemon const daemon;
    for (std::string const text : {"0.0.0.0", "255.255.255.255", "::", "::1", "::192.0.2.1", "::ffff:192.0.2.1",
                                   "fe80::1", "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff"}) {
        m_cache.entry(ip(text))->add(static_cast<unsigned int>(random.below(500000)), Record(1, 2, 0, 0, 1));
    }
    for (int n = 0; n < 3000; ++n) {
        RefEntry const entry = m_cache.entry(ip(static_cast<unsigned int>(random.any())));
        entry->state(static_cast<ReputationState>(static_cast<std::uint32_t>(random.below(4)) - 1));
        for (std::size_t hours = random.below(14); hours > 0; --hours) {
            auto const counter = [&] {
                return static_cast<std::uint32_t>(random.oneIn(50) ? 2147483647 : random.below(1000));
            };
            entry->add(477000 + static_cast<unsigned int>(random.below(20)),
                       Record(counter(), counter(), counter(), counter(), counter()));
        }
    }
    std::vector<std::string> expected;
    for (std::string const& line : held()) {
        if (line.find('=') != std::string::npos) { // others hold no records and are not saved
            expected.push_back(line);
        }
    }
    ASSERT_TRUE(write());
    ASSERT_EQ(restoreEntries(scriptPath().c_str()), 0);
    m_cache.clear();
    read();
    EXPECT_EQ(held(), expected);
    EXPECT_TRUE(m_log.records().empty());
    std::string const script = contentOf(scriptPath());
    ASSERT_TRUE(write());
    EXPECT_EQ(contentOf(scriptPath()), script) << "and saved again it is the same script";
}

// What no row can hold costs nothing else.
TEST_F(RestoreTest, RecordsThatNoRowHoldsLeaveTheOthersWhole) {
    FakeDatabaseDaemon const daemon;
    m_cache.entry(IPAddress())->add(5, Record(1, 1, 1, 1, 1));
    m_cache.entry(ip(1))->add(0x80000000U, Record(1, 1, 1, 1, 1));
    m_cache.entry(ip(1))->add(5, Record(0xFFFFFFFFU, 1, 1, 1, 1));
    m_cache.entry(ip(2))->add(5, Record(1, 1, 1, 1, 1));
    ASSERT_TRUE(write());
    EXPECT_EQ(m_log.records(0x3000185).size(), 3U);
    m_log.clear();
    ASSERT_EQ(restoreEntries(scriptPath().c_str()), 0);
    m_cache.clear();
    read();
    EXPECT_THAT(held(), ElementsAre("10.0.0.1 0: 5=2147483647/1/1/1/1", "10.0.0.2 0: 5=1/1/1/1/1"));
    EXPECT_TRUE(m_log.lines().empty());
}

} // namespace
} // namespace Vellum::Reputation
