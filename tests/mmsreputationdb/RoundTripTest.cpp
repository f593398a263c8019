// Cache, script, tables and back: what was counted before a restart is there after it.
#include "mmsreputation/CronJobBackup.h"
#include "tests/support/EndpointTables.h"
#include "tests/support/FakeDatabaseDaemon.h"
#include "tests/support/RandomSource.h"
#include "tests/support/UnreachableServer.h"

#include "foundation/DetachedBackup.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

namespace Vellum::MMSReputation {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

constexpr long inTheYear2037 = 2114377200;

class EndpointRoundTrip : public EndpointTables {
  protected:
    ~EndpointRoundTrip() override { EXPECT_TRUE(DetachedBackup::waitForAll(CapturingLogger::patience)); }

    FakeDatabaseDaemon m_daemon; // accepts; the tests run the scripts themselves
};

TEST_F(EndpointRoundTrip, EverythingComesBack) {
    std::uint32_t const slice = currentSlice();
    add(1, slice, 1, 2, inTheYear2037);
    add(1)->add(Period(slice - 3), Entry::Record(3, 4));
    add(2, slice, 0x7FFFFFFF, 0);
    add(MSISDN("+4917012345678901234567890123456789"))->add(Period(slice), Entry::Record(7, 8));
    Rows const before = held();
    EXPECT_TRUE(Database::write(scriptPath()));
    EXPECT_EQ(restoreEntries(scriptPath()), 0);
    load();
    EXPECT_EQ(held(), before);
    EXPECT_TRUE(m_log.lines().empty());
}

TEST_F(EndpointRoundTrip, ScriptReplacesBothTablesAndNoOther) {
    run({"insert into mms_reputation values ('9', 1, 2, 3)", "insert into mms_reputation_expiry values ('9', 4)",
         "insert into mms_blacklist values ('21')", "insert into mms_exempt values ('11')",
         "insert into mms_repuation_score values ('31', 1, 2)"});
    std::uint32_t const slice = currentSlice();
    add(1, slice, 1, 2, 1700000000);
    EXPECT_TRUE(Database::write(scriptPath()));
    EXPECT_EQ(restoreEntries(scriptPath().c_str()), 0);
    EXPECT_THAT(recordRows(), ElementsAre("15555550001|" + std::to_string(slice) + "|1|2"));
    EXPECT_THAT(expiryRows(), ElementsAre("15555550001|1700000000"));
    EXPECT_THAT(blacklistRows(), ElementsAre("21"));
    EXPECT_THAT(exemptRows(), ElementsAre("11"));
    EXPECT_THAT(scoreRows(), ElementsAre("31|1|2"));
}

TEST_F(EndpointRoundTrip, WhatTheColumnsCannotHoldSpoilsNothing) {
    std::uint32_t const slice = currentSlice();
    add(1, slice, 0xFFFFFFFFU, 0x80000000U, 1L << 40);
    add(2, slice, 1, 1);
    add(MSISDN(std::string(40, '7')))->add(Period(slice), Entry::Record(1, 0));
    RefEntry const nobody(true);
    nobody->add(Period(slice), Entry::Record(1, 0));
    m_cache->add(MSISDN(), nobody);
    EXPECT_TRUE(Database::write(scriptPath()));
    EXPECT_EQ(restoreEntries(scriptPath()), 0);
    load();
    std::string const at = std::to_string(slice);
    EXPECT_THAT(held(),
                ElementsAre("15555550001 2147483647 " + at + ":2147483647:2147483647", "15555550002 0 " + at + ":1:1"));
}

TEST_F(EndpointRoundTrip, EntryThatIsOnlyBlacklistedIsGoneAfterTheNextLoad) {
    add(1)->blacklistExpiry(inTheYear2037);
    EXPECT_TRUE(Database::write(scriptPath()));
    EXPECT_EQ(restoreEntries(scriptPath()), 0);
    load();
    EXPECT_THAT(held(), IsEmpty());
}

TEST_F(EndpointRoundTrip, RandomCachesComeBack) {
    RandomSource random;
    for (int run = 0; run < 5; ++run) {
        startAfresh();
        std::uint32_t const slice = currentSlice();
        for (std::size_t n = random.below(1500); n > 0; --n) {
            RefEntry const entry = add(static_cast<unsigned int>(random.below(100000)));
            entry->blacklistExpiry(random.oneIn(3) ? inTheYear2037 : 0);
            for (std::size_t records = 1 + random.below(4); records > 0; --records) {
                entry->add(Period(slice - static_cast<std::uint32_t>(random.below(10))),
                           Entry::Record(1 + static_cast<std::uint32_t>(random.below(0x7FFFFFFF)),
                                         static_cast<std::uint32_t>(random.below(0x7FFFFFFF))));
            }
        }
        EXPECT_TRUE(Database::write(scriptPath()));
        Rows const before = held();
        EXPECT_EQ(restoreEntries(scriptPath()), 0);
        load();
        EXPECT_EQ(held(), before);
    }
    EXPECT_TRUE(m_log.lines().empty());
}

TEST_F(EndpointRoundTrip, BackupOfItsOwnThreadWritesToTheConfiguredFile) {
    add(1, currentSlice(), 1, 0);
    EXPECT_EQ(CronJobBackup().task(), 0);
    ASSERT_TRUE(DetachedBackup::waitForAll(CapturingLogger::patience));
    EXPECT_THAT(contentOf(scriptPath()), HasSubstr("'15555550001'"));
    EXPECT_EQ(m_daemon.requests().size(), 1U);
    EXPECT_EQ(m_configuration->resyncs, 1);
    EXPECT_EQ(backupEntries(), 0);
    ASSERT_TRUE(DetachedBackup::waitForAll(CapturingLogger::patience));
    EXPECT_EQ(m_daemon.requests().size(), 2U);
    EXPECT_TRUE(m_log.lines().empty());
}

TEST_F(EndpointRoundTrip, BackupWhileTheServerIsAwayIsLogged) {
    UnreachableServer const away;
    EXPECT_EQ(CronJobBackup().task(), 0) << "it only starts the backup";
    ASSERT_TRUE(DetachedBackup::waitForAll(CapturingLogger::patience));
    auto const records = m_log.lines();
    ASSERT_EQ(records.size(), 1U);
    EXPECT_EQ(records[0].code, 0x3000183U);
    EXPECT_EQ(records[0].format, "%s");
    EXPECT_THAT(records[0].text, StartsWith("Connection (code 4)"));
    EXPECT_FALSE(BackupReport::last().accepted);
    EXPECT_THAT(m_daemon.requests(), IsEmpty());
}

TEST_F(EndpointRoundTrip, ConfigurationWithoutAFileFailsTheBackup) {
    m_configuration->path.clear();
    backupEntries();
    ASSERT_TRUE(DetachedBackup::waitForAll(CapturingLogger::patience));
    ASSERT_EQ(m_log.records(0x3000183).size(), 1U);
    EXPECT_THAT(m_log.records(0x3000183)[0].text, HasSubstr("AdjustableConfiguration::fnameBackup"));
}

TEST_F(EndpointRoundTrip, ScriptThatFailsIsLoggedWithFiveFieldsAndLeavesTheRows) {
    run({"insert into mms_blacklist values ('21')"});
    writeFile(scriptPath(), "delete from mms_blacklist;\ninsert into mms_absent values (1);\ncommit;\n");
    EXPECT_EQ(restoreEntries(scriptPath()), 0);
    auto const records = m_log.lines();
    ASSERT_EQ(records.size(), 1U);
    EXPECT_EQ(records[0].code, 0x300017BU);
    EXPECT_EQ(records[0].format, "%s\x01%s\x01%d\x01%s\x01%s");
    ASSERT_EQ(records[0].fields.size(), 5U);
    EXPECT_EQ(records[0].fields[0], "execute");
    EXPECT_EQ(records[0].fields[1], "MMSReputationDatabase");
    EXPECT_THAT(records[0].fields[3], HasSubstr("mms_absent"));
    EXPECT_EQ(records[0].fields[4], scriptPath());
    EXPECT_THAT(blacklistRows(), ElementsAre("21"));
}

TEST_F(EndpointRoundTrip, ScriptThatIsNotThereIsLoggedAsMissing) {
    std::string const absent = m_directory.path() + "/absent.sql";
    EXPECT_EQ(restoreEntries(absent), 0);
    auto const records = m_log.lines();
    ASSERT_EQ(records.size(), 1U);
    EXPECT_EQ(records[0].code, 0x300017CU);
    ASSERT_EQ(records[0].fields.size(), 5U);
    EXPECT_EQ(records[0].fields[0], "execute");
    EXPECT_EQ(records[0].fields[4], absent);
}

TEST_F(EndpointRoundTrip, RestoreWhileTheServerIsAwayAnswersMinusOne) {
    UnreachableServer const away;
    EXPECT_EQ(restoreEntries(scriptPath()), -1);
    ASSERT_EQ(m_log.lines().size(), 1U);
    EXPECT_EQ(m_log.lines()[0].code, 0x3000183U);
}

} // namespace
} // namespace Vellum::MMSReputation
