// From the cache into a script, and to the database daemon. No database is needed for that.
#include "foundation/DetachedBackup.h"
#include "mmsreputation/BackupScript.h"
#include "mmsreputation/CronJobBackup.h"
#include "mmsreputation/MMSReputationDatabase.h"
#include "mmsreputation/Reports.h"
#include "tests/support/FakeDatabaseDaemon.h"
#include "tests/support/LoadedEndpoints.h"
#include "tests/support/OwnProcess.h"
#include "tests/support/TemporaryDirectory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <sys/stat.h>
#include <thread>

namespace Vellum::MMSReputation {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

constexpr char const* emptyScript = "LOCK TABLES mms_reputation WRITE,mms_reputation_expiry WRITE;\n"
                                    "delete from mms_reputation;\n"
                                    "delete from mms_reputation_expiry;\n"
                                    "\nUNLOCK TABLES;\n";

std::string contentOf(std::string const& path) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream content;
    content << file.rdbuf();
    return content.str();
}

std::size_t countOf(std::string const& part, std::string const& text) {
    std::size_t count = 0;
    for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
        ++count;
    }
    return count;
}

class EndpointBackup : public testing::Test, public LoadedEndpoints {
  protected:
    EndpointBackup() { m_configuration->path = path(); }
    ~EndpointBackup() override { EXPECT_TRUE(DetachedBackup::waitForAll(CapturingLogger::patience)); }

    std::string path() const { return m_directory.path() + "/endpoint.sql"; }
    std::string script() {
        std::ostringstream out;
        m_rows = BackupSnapshot(*m_cache).write(out);
        return out.str();
    }
    void expectWriteFailed(std::string const& begin) const {
        auto const records = m_log.records(0x300017A);
        ASSERT_EQ(records.size(), 1U);
        EXPECT_EQ(records[0].format, "%s\x01%d\x01%s");
        ASSERT_EQ(records[0].fields.size(), 3U);
        EXPECT_EQ(records[0].fields[0], "MMSReputationDatabase");
        EXPECT_EQ(records[0].fields[1], "416");
        EXPECT_THAT(records[0].fields[2], StartsWith(begin));
        EXPECT_FALSE(BackupReport::last().accepted);
        EXPECT_EQ(BackupReport::last().problem, records[0].fields[2]);
    }

    TemporaryDirectory m_directory;
    BackupSnapshot::Rows m_rows;
};

TEST_F(EndpointBackup, EmptyCacheIsTheLockTwoDeletesAndTheUnlock) {
    EXPECT_EQ(script(), emptyScript);
    EXPECT_EQ(m_rows.records, 0U);
}

TEST_F(EndpointBackup, ScriptIsThisText) {
    std::uint32_t const slice = currentSlice();
    std::string const a = std::to_string(slice + 4);
    std::string const b = std::to_string(slice + 5);
    add(2, slice + 5, 3, 4, 1700000000);
    add(1, slice + 5, 1, 0);
    add(1)->add(Period(slice + 4), Entry::Record(0, 2));
    EXPECT_EQ(script(), "LOCK TABLES mms_reputation WRITE,mms_reputation_expiry WRITE;\n"
                        "delete from mms_reputation;\n"
                        "delete from mms_reputation_expiry;\n"
                        "\nINSERT INTO mms_reputation VALUES"
                        "\n('15555550001', " +
                            a +
                            ", 0, 2),"
                            "\n('15555550001', " +
                            b +
                            ", 1, 0),"
                            "\n('15555550002', " +
                            b +
                            ", 3, 4);\ncommit;\n"
                            "\nINSERT INTO mms_reputation_expiry VALUES"
                            "\n('15555550001', 0),"
                            "\n('15555550002', 1700000000);\ncommit;\n"
                            "\nUNLOCK TABLES;\n");
    EXPECT_EQ(m_rows.subscribers, 2U);
    EXPECT_EQ(m_rows.records, 3U);
    EXPECT_EQ(m_rows.leftOut, 0U);
}

TEST_F(EndpointBackup, EntryThatIsOnlyBlacklistedIsNotSavedAndStaysInMemory) {
    add(1)->blacklistExpiry(4102444800L);
    EXPECT_EQ(script(), emptyScript);
    EXPECT_TRUE(holds(*m_cache, subscriber(1)));
}

TEST_F(EndpointBackup, IdleEntriesArePurgedFirst) {
    add(1);
    add(2, currentSlice() - 40, 5, 5);
    add(3, currentSlice() - 40, 5, 5, 4102444800L);
    EXPECT_EQ(countOf("\n('", script()), 2U) << "one record, one expiry";
    EXPECT_FALSE(holds(*m_cache, subscriber(1)));
    EXPECT_FALSE(holds(*m_cache, subscriber(2)));
    EXPECT_TRUE(holds(*m_cache, subscriber(3)));
}

TEST_F(EndpointBackup, CopyHoldsBothLocksExclusivelyWhileItPurges) {
    int purges = 0;
    m_configuration->onWindowSize = [&] { // the purge asks for the slice of now
        ++purges;
        EXPECT_TRUE(Entry::s_mutex.isClaimed());
        EXPECT_TRUE(m_cache->lock.isClaimed());
    };
    BackupSnapshot const snapshot(*m_cache);
    EXPECT_EQ(purges, 1);
    EXPECT_FALSE(Entry::s_mutex.isClaimed());
    EXPECT_FALSE(m_cache->lock.isClaimed());
}

TEST_F(EndpointBackup, CopyTakesTheEntryLockFirst) {
    std::atomic<bool> done{false};
    std::thread copying;
    {
        SharedLock const hold(m_cache->lock); // so it gets the one and waits for the other
        copying = std::thread([&] {
            BackupSnapshot const snapshot(*m_cache);
            done = true;
        });
        while (!done && !m_cache->lock.isClaimed()) {
            std::this_thread::yield();
        }
        EXPECT_FALSE(done);
        EXPECT_TRUE(Entry::s_mutex.isClaimed());
    }
    copying.join();
    EXPECT_TRUE(done);
}

TEST_F(EndpointBackup, RowsComeInStatementsOfAThousand) {
    std::uint32_t const slice = currentSlice();
    for (unsigned int n = 0; n < 250; ++n) {
        for (std::uint32_t back = 0; back < 10; ++back) {
            add(n)->add(Period(slice - back), Entry::Record(1, 0));
        }
    }
    std::string const text = script();
    EXPECT_EQ(m_rows.records, 2500U);
    EXPECT_EQ(countOf("INSERT INTO mms_reputation VALUES\n(", text), 3U);
    EXPECT_EQ(countOf("INSERT INTO mms_reputation_expiry VALUES\n(", text), 1U);
    EXPECT_EQ(countOf(";\ncommit;\n", text), 4U) << "behind each";
    EXPECT_EQ(countOf(";\ncommit;\n\nINSERT INTO mms_reputation VALUES\n(", text), 2U);
    std::size_t const first = text.find("INSERT");
    std::size_t const second = text.find("INSERT", first + 1);
    std::size_t const third = text.find("INSERT", second + 1);
    std::size_t const fourth = text.find("INSERT", third + 1);
    EXPECT_EQ(countOf("\n('", text.substr(first, second - first)), 1000U);
    EXPECT_EQ(countOf("\n('", text.substr(second, third - second)), 1000U);
    EXPECT_EQ(countOf("\n('", text.substr(third, fourth - third)), 500U);
    EXPECT_EQ(countOf("\n('", text.substr(fourth)), 250U);
}

TEST_F(EndpointBackup, ExactlyAThousandRowsAreOneStatement) {
    for (unsigned int n = 0; n < 1000; ++n) {
        add(n, currentSlice(), 1, 0);
    }
    EXPECT_EQ(countOf("INSERT INTO", script()), 2U);
    add(1000, currentSlice(), 1, 0);
    EXPECT_EQ(countOf("INSERT INTO", script()), 4U);
}

TEST_F(EndpointBackup, CountsAndExpiriesBeyondAColumnAreItsEnds) {
    std::uint32_t const slice = currentSlice();
    add(1, slice, 0x80000000U, 0xFFFFFFFFU, 1L << 40);
    add(2, slice, 0x7FFFFFFFU, 1, -(1L << 40));
    std::string const text = script();
    EXPECT_THAT(text, HasSubstr(", 2147483647, 2147483647),"));
    EXPECT_THAT(text, HasSubstr(", 2147483647, 1);"));
    EXPECT_THAT(text, HasSubstr("\n('15555550001', 2147483647),\n('15555550002', -2147483648);"));
}

TEST_F(EndpointBackup, WhatNoRowCanHoldIsLeftOutAndLogged) {
    std::uint32_t const slice = currentSlice();
    std::string const longest(36, '7');
    std::string const longer(37, '8');
    for (std::string const& number : {longest, longer}) {
        add(MSISDN(number))->add(Period(slice), Entry::Record(1, 0));
    }
    RefEntry const nobody(true);
    nobody->add(Period(slice), Entry::Record(1, 0));
    m_cache->add(MSISDN(), nobody);
    add(1, 0x80000000U, 1, 0);
    std::string const text = script();
    EXPECT_EQ(m_rows.leftOut, 3U);
    EXPECT_EQ(countOf("\n('" + longest + "', ", text), 2U);
    EXPECT_EQ(countOf(longer, text), 0U);
    EXPECT_EQ(countOf("\n('', ", text), 0U);
    std::vector<std::string> reasons;
    for (auto const& record : m_log.records(0x3000166)) {
        EXPECT_EQ(record.format, "%s");
        reasons.push_back(record.text);
    }
    EXPECT_THAT(reasons,
                ElementsAre("not stored: endpoint : it has no number",
                            "not stored: endpoint 15555550001 slice 2147483648: the slice is beyond the column",
                            "not stored: endpoint " + longer + ": the number is longer than the column"));
}

TEST_F(EndpointBackup, ScriptIsHandedToTheDaemon) {
    add(1, currentSlice(), 1, 0);
    FakeDatabaseDaemon daemon;
    std::string seen;
    daemon.onRequest = [&](std::string const&) {
        seen = contentOf(path());
        m_cache->blacklist(subscriber(2)); // no lock is held while the daemon is waited for
        ExclusiveLock const entries(Entry::s_mutex);
    };
    EXPECT_TRUE(Database::write(path()));
    EXPECT_THAT(seen, StartsWith("LOCK TABLES mms_reputation WRITE"));
    EXPECT_EQ(seen, contentOf(path()));
    std::int32_t const code = 9;
    auto const length = static_cast<std::int32_t>(path().size() + 1);
    std::string expected(8, '\0');
    std::memcpy(expected.data(), &code, 4);
    std::memcpy(expected.data() + 4, &length, 4);
    expected += path() + '\0';
    EXPECT_THAT(daemon.requests(), ElementsAre(expected));
    EXPECT_EQ(m_configuration->resyncs, 1);
    EXPECT_TRUE(m_log.lines().empty());
    BackupReport const report = BackupReport::last();
    EXPECT_TRUE(report.attempted);
    EXPECT_TRUE(report.accepted);
    EXPECT_EQ(report.subscribers, 1U);
    EXPECT_EQ(report.records, 1U);
    EXPECT_EQ(report.bytes, seen.size());
}

TEST_F(EndpointBackup, RefusalIsLoggedWithABlankAndTheUnitIsResyncedAllTheSame) {
    FakeDatabaseDaemon const daemon(5);
    EXPECT_FALSE(Database::write(path()));
    auto const records = m_log.records();
    ASSERT_EQ(records.size(), 1U);
    EXPECT_EQ(records[0].code, 0x3000179U);
    EXPECT_EQ(records[0].format, "%s");
    EXPECT_EQ(records[0].text, " ");
    EXPECT_EQ(m_configuration->resyncs, 1);
    EXPECT_EQ(contentOf(path()), emptyScript) << "the script stays";
    EXPECT_FALSE(BackupReport::last().accepted);
}

TEST_F(EndpointBackup, FileThatCannotBeWrittenIsLoggedAndNobodyIsAsked) {
    FakeDatabaseDaemon const daemon;
    EXPECT_FALSE(Database::write(m_directory.path() + "/missing/endpoint.sql"));
    expectWriteFailed("File::basic_ofstream (code 4, File): cannot open " + m_directory.path());
    EXPECT_THAT(daemon.requests(), IsEmpty());
    EXPECT_EQ(m_configuration->resyncs, 0);
}

TEST_F(EndpointBackup, CacheThatMissesEntriesIsNotWritten) {
    FakeDatabaseDaemon const daemon;
    add(1, currentSlice(), 1, 0);
    m_cache->missesEntries("row 3 was refused");
    EXPECT_EQ(m_cache->whyNotWhole(), "row 3 was refused");
    EXPECT_FALSE(Database::write(path()));
    expectWriteFailed(
        "EndpointReputation::Database::write (code 4, MMSReputationDatabase): the cache does not hold all "
        "entries of the tables and must not replace them: row 3 was refused");
    EXPECT_FALSE(std::filesystem::exists(path()));
    EXPECT_THAT(daemon.requests(), IsEmpty());
    EXPECT_TRUE(m_cache->takeAsWhole());
    EXPECT_FALSE(m_cache->takeAsWhole()) << "it is already";
    EXPECT_EQ(m_cache->whyNotWhole(), "");
    EXPECT_TRUE(Database::write(path()));
}

TEST(EndpointBackupDeathTest, WithoutACacheNothingIsOpened) {
    expectInOwnProcess([] {
        CapturingLogger log;
        InstalledConfiguration const configuration;
        TemporaryDirectory const directory;
        FakeDatabaseDaemon const daemon;
        std::string const path = directory.path() + "/endpoint.sql";
        std::ofstream(path) << "the last one";
        EXPECT_FALSE(Database::write(path));
        EXPECT_EQ(contentOf(path), "the last one");
        ASSERT_EQ(log.records(0x300017A).size(), 1U);
        EXPECT_THAT(log.records(0x300017A)[0].text, HasSubstr("no cache is loaded"));
        EXPECT_THAT(daemon.requests(), IsEmpty());
    });
}

TEST_F(EndpointBackup, JobOfAUnitThatIsNotTheMasterDoesNothing) {
    m_configuration->master = false;
    EXPECT_EQ(CronJobBackup().task(), 0);
    EXPECT_EQ(DetachedBackup::running(), 0U);
    EXPECT_TRUE(m_log.lines().empty());
}

TEST_F(EndpointBackup, JobWhoseConfigurationThrowsIsLogged) {
    m_configuration->haMasterThrows = true;
    EXPECT_EQ(CronJobBackup().task(), -1);
    auto const records = m_log.lines();
    ASSERT_EQ(records.size(), 1U);
    EXPECT_EQ(records[0].code, 0x300017FU);
    EXPECT_EQ(records[0].format, "%s");
    EXPECT_EQ(records[0].text, "AdjustableConfiguration::haMaster (code 4)");
    NoConfiguration const none;
    EXPECT_EQ(CronJobBackup().task(), -1);
    EXPECT_THAT(m_log.records(0x300017F).back().text, HasSubstr("Reputation::Configuration is null"));
}

} // namespace
} // namespace Vellum::MMSReputation
