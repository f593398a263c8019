#include "daemon/ScriptFacts.h"

#include "daemon/OpenedScript.h"
#include "foundation/Exception.h"
#include "greylist/BackupScript.h"
#include "tests/support/CapturingLogger.h"
#include "tests/support/GreylistConfiguration.h"
#include "tests/support/GreylistIdentities.h"
#include "tests/support/TemporaryDirectory.h"

#include <gtest/gtest.h>

#include <fstream>
#include <sys/stat.h>
#include <unistd.h>

namespace Vellum::Daemon {
namespace {

class ScriptFactsOf : public testing::Test {
  protected:
    ScriptFacts of(std::string const& text) {
        std::ofstream(path, std::ios::binary) << text;
        return ScriptFacts::of(OpenedScript(path, {}));
    }
    std::string problemOf(std::string const& file, std::set<uid_t> const& mayAsk = {}) {
        try {
            OpenedScript(file, mayAsk);
            ADD_FAILURE() << file << " was taken";
            return {};
        } catch (Exception const& failed) {
            return failed.stringParameters().at(0);
        }
    }

    TemporaryDirectory directory;
    std::string const path = directory.path() + "/script.sql";
};

TEST_F(ScriptFactsOf, ABackupAreItsRows) {
    CapturingLogger const log;
    GreyList::InstalledConfiguration const configuration(5000);
    GreyList::_TupleCache tuples;
    GreyList::_DynamicExemptCache exemptions;
    for (unsigned int n = 0; n < 2500; ++n) {
        tuples.add(GreyList::tuple(n), GreyList::Status(1000 + n, 9000, 0));
    }
    tuples.add(GreyList::tuple("192.0.2.0/24", "o'hara\\', 99999,@example.net", ""), GreyList::Status(1, 2, 0));
    exemptions.add(GreyList::exemption(1), GreyList::Status(4000, 9000, 0));
    {
        std::ofstream out(path);
        GreyList::BackupSnapshot(tuples, exemptions).write(out);
    }
    ScriptFacts const facts = ScriptFacts::of(OpenedScript(path, {}));
    EXPECT_EQ(facts.tuples, 2501U);
    EXPECT_EQ(facts.exemptions, 1U);
    EXPECT_EQ(facts.newest, 4000);
    EXPECT_TRUE(facts.complete);
    struct stat status {};
    ASSERT_EQ(::stat(path.c_str(), &status), 0);
    EXPECT_EQ(facts.bytes, static_cast<std::uint64_t>(status.st_size));
    EXPECT_EQ(facts.modified, status.st_mtime);
}

TEST_F(ScriptFactsOf, AScriptThatWasCutOffIsNotComplete) {
    std::string const whole = "INSERT INTO grey_list VALUES\n('a', 'b', 'c', 5,6);\n;\ncommit;\nUNLOCK TABLES;\n";
    EXPECT_TRUE(of(whole).complete);
    EXPECT_TRUE(of(whole.substr(0, whole.size() - 1)).complete) << "without its last line break";
    EXPECT_FALSE(of(whole.substr(0, whole.size() - 2)).complete);
    EXPECT_FALSE(of(whole.substr(0, 40)).complete);
    EXPECT_FALSE(of("").complete);
    EXPECT_TRUE(of("delete from grey_list;\ncommit;\n").complete);
    EXPECT_FALSE(of("LOCK TABLES grey_list WRITE;\ndelete from grey_list;\ncommit;\n").complete);
}

TEST_F(ScriptFactsOf, TablesThatARestoreDoesNotKnowAreNamed) {
    EXPECT_EQ(of("LOCK TABLES mms_blacklist WRITE, mms_exempt WRITE;\nUNLOCK TABLES;\n").otherTable, "mms_blacklist");
    EXPECT_EQ(of("LOCK TABLES mms_reputation WRITE,mms_reputation_expiry WRITE;\nUNLOCK TABLES;\n").otherTable, "");
    EXPECT_EQ(of("LOCK TABLES grey_list WRITE,autoexempt WRITE;\nUNLOCK TABLES;\n").otherTable, "");
    EXPECT_EQ(of("LOCK TABLES sender_reputation WRITE,sender_reputation_state WRITE;\nUNLOCK TABLES;\n").otherTable,
              "");
    EXPECT_EQ(of("insert into x values (1);\ncommit;\n").otherTable, "") << "locks nothing";
}

TEST_F(ScriptFactsOf, ScriptOfEndpointsTellsItsSlices) {
    ScriptFacts const facts = of("LOCK TABLES mms_reputation WRITE,mms_reputation_expiry WRITE;\n"
                                 "delete from mms_reputation;\n"
                                 "delete from mms_reputation_expiry;\n"
                                 "\nINSERT INTO mms_reputation VALUES"
                                 "\n('1', 15, 0, 2),\n('1', 16, 1, 0),\n('2', 16, 3, 4);\ncommit;\n"
                                 "\nINSERT INTO mms_reputation_expiry VALUES"
                                 "\n('1', 0),\n('2', 1700000000);\ncommit;\n"
                                 "\nUNLOCK TABLES;\n");
    EXPECT_TRUE(facts.ofEndpoints);
    EXPECT_FALSE(facts.ofReputation);
    EXPECT_EQ(facts.slices, 3U);
    EXPECT_EQ(facts.tuples + facts.exemptions + facts.reputations, 0U);
    EXPECT_EQ(facts.newest, 0) << "a slice is no time";
    EXPECT_TRUE(facts.complete);
    EXPECT_FALSE(of("LOCK TABLES grey_list WRITE,autoexempt WRITE;\nUNLOCK TABLES;\n").ofEndpoints);
}

TEST_F(ScriptFactsOf, OtherFilesHaveNoRows) {
    ScriptFacts const facts = of("('a', 'b', 'c', 5,6)\nINSERT INTO other VALUES\n('a', 5,6)\nINSERT INTO grey_list "
                                 "VALUES\n(1)\n('no times'),\n");
    EXPECT_EQ(facts.tuples, 0U);
    EXPECT_EQ(facts.exemptions, 0U);
    EXPECT_EQ(facts.newest, 0);
}

TEST_F(ScriptFactsOf, LinesOfAnyLengthAndBytesOfAnyKindAreRead) {
    std::string const row = "('a', 'b', 'c', 5,6)";
    std::string const start = "INSERT INTO grey_list VALUES\n";
    EXPECT_EQ(of(start + std::string(1'000'000, 'x') + "\n" + row + "\n").tuples, 1U);
    EXPECT_EQ(of(start + std::string(100'000, '\0') + "\n" + row).tuples, 1U) << "and no line break behind the row";
    // A row across the end of whatever piece is read at once.
    for (std::size_t before = (256U << 10) - start.size() - row.size() - 3; before < 256U << 10; ++before) {
        std::string const padding(before, '#');
        ASSERT_EQ(of(start + padding + "\n" + row + "\n").newest, 5) << before;
    }
}

TEST_F(ScriptFactsOf, WhatIsNoFileIsSaidInPlainWords) {
    EXPECT_EQ(problemOf(path), path + ": No such file or directory");
    EXPECT_EQ(problemOf(directory.path()), directory.path() + ": not a regular file");
    ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
    EXPECT_EQ(problemOf(path), path + ": not a regular file") << "and nobody waits for its writer";
}

TEST_F(ScriptFactsOf, ALinkIsNotFollowed) {
    of("commit;\n");
    std::string const link = directory.path() + "/link.sql";
    ASSERT_EQ(::symlink(path.c_str(), link.c_str()), 0);
    EXPECT_EQ(problemOf(link), link + ": it is a symbolic link");
}

TEST_F(ScriptFactsOf, AFileThatOthersMayChangeIsNotTaken) {
    of("commit;\n");
    for (mode_t const mode : {0602, 0620, 0666}) {
        ASSERT_EQ(::chmod(path.c_str(), mode), 0);
        EXPECT_EQ(problemOf(path), path + ": others than its owner may write to it; take a copy");
    }
    ASSERT_EQ(::chmod(path.c_str(), 0644), 0);
    EXPECT_NO_THROW(OpenedScript(path, {}));
}

TEST_F(ScriptFactsOf, AFileOfAUserWhoMayNotAskIsNotTaken) {
    of("commit;\n");
    if (::chown(path.c_str(), 4711, 4711) != 0) {
        GTEST_SKIP() << "only root can give files away";
    }
    EXPECT_EQ(problemOf(path), path + ": it belongs to user 4711, who may not ask for a restore; take a copy");
    EXPECT_EQ(problemOf(path, {4710}), path + ": it belongs to user 4711, who may not ask for a restore; take a copy");
    EXPECT_NO_THROW(OpenedScript(path, {4711}));
}

} // namespace
} // namespace Vellum::Daemon
