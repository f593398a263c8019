#include "daemon/GreylistAdministration.h"

#include "foundation/Exception.h"
#include "foundation/database/DatabaseDaemon.h"
#include "greylist/DynamicExemptCache.h"
#include "greylist/GlDynamicExemptDatabase.h"
#include "greylist/GlRecordDatabase.h"
#include "greylist/LoadReport.h"
#include "greylist/TupleCache.h"
#include "reputation/Cache.h"
#include "reputation/ReputationDatabase.h"
#include "tests/support/CapturingLogger.h"
#include "tests/support/FakeDatabaseDaemon.h"
#include "tests/support/GreylistConfiguration.h"
#include "tests/support/GreylistIdentities.h"
#include "tests/support/PrivateMariaDb.h"
#include "tests/support/ReputationConfiguration.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>

namespace Vellum::Daemon {
namespace {

using GreyList::exemption;
using GreyList::Status;
using GreyList::tuple;

struct TestAdministration : public GreylistAdministration {
    DaemonStatus status() const override { return {}; }
    BackupGate backupGate() const override { return {}; }
    BackupGate reputationGate() const override { return {}; }
    BackupGate endpointGate() const override { return {}; }
    bool acceptEmpty() override { return false; }
    bool acceptEmptyEndpoints() override { return false; }
    bool acceptEmptyReputations() override { return false; }
    void cachesLoaded() override { ++loads; }

    int loads = 0;
};

class GreylistAdministrationTest : public testing::Test {
  protected:
    GreylistAdministrationTest() {
        PrivateMariaDb::shared().useAccount();
        PrivateMariaDb::shared().freshDatabase();
        SocketAddress const server = Database::Connection::defaultAddress();
        GreyList::GlRecordDatabase(server).createTable();
        GreyList::DynamicExemptDatabase(server).createTable();
        Reputation::Database(server).createTable();
        reputationConfiguration.path = directory.path() + "/reputation.sql";
        reputations().clear();
        configuration->path = directory.path() + "/greylist.sql";
        tuples().clear();
        exemptions().clear();
        GreyList::BackupReport::set({});
    }

    static GreyList::_TupleCache& tuples() { return **GreyList::TupleCache::instance(); }
    static GreyList::_DynamicExemptCache& exemptions() { return **GreyList::DynamicExemptCache::instance(); }
    static Reputation::Cache& reputations() { return **Reputation::RefCache::instance(); }
    static std::uint32_t size(auto const& cache) {
        SharedLock const hold(cache.lock);
        return cache.sizeNoLock();
    }
    static std::vector<std::string> rows() {
        return PrivateMariaDb::shared().query("select SenderEmailAddress from grey_list order by 1");
    }

    // Requests to run a script; a restore asks other things too.
    long scriptsHandedOver() const {
        auto const requests = databaseDaemon.requests();
        return std::count_if(requests.begin(), requests.end(), [](std::string const& request) {
            std::int32_t code = 0;
            std::memcpy(&code, request.data(), std::min(sizeof code, request.size()));
            return code == static_cast<std::int32_t>(DatabaseDaemon::RequestCode::greylistScript);
        });
    }

    std::string write(std::string const& text) {
        std::string const path = directory.path() + "/given.sql";
        std::ofstream(path) << text;
        return path;
    }
    static std::string script(std::string const& rowsOfGreyList) {
        return "LOCK TABLES grey_list WRITE,autoexempt WRITE;\ndelete from grey_list;\nINSERT INTO grey_list VALUES" +
               rowsOfGreyList + ";\ndelete from autoexempt;\n;\ncommit;\nUNLOCK TABLES;\n";
    }
    static constexpr char const* twoRows = "\n('192.0.2.0/24', 'one@example.net', 'b@example.org', 100,200),"
                                           "\n('192.0.2.0/24', 'two@example.net', 'b@example.org', 150,300)";

    CapturingLogger log;
    TemporaryDirectory directory;
    FakeDatabaseDaemon databaseDaemon;
    GreyList::InstalledConfiguration configuration;
    Reputation::InstalledConfiguration reputationConfiguration;
    TestAdministration administration;
};

TEST_F(GreylistAdministrationTest, ABackupTellsWhatItHandedOver) {
    tuples().add(tuple(1), Status(100, 200, 0));
    tuples().add(tuple("192.0.2.0/24", std::string(200, 's'), "b@example.org"), Status(100, 200, 0));
    exemptions().add(exemption(1), Status(100, 200, 0));
    GreyList::BackupReport const report = administration.backupNow();
    EXPECT_TRUE(report.attempted);
    EXPECT_TRUE(report.accepted) << report.problem;
    EXPECT_EQ(report.tuples, 1U);
    EXPECT_EQ(report.exemptions, 1U);
    EXPECT_EQ(report.leftOut, 1U) << "its sender is longer than the column";
    EXPECT_EQ(scriptsHandedOver(), 1);
    EXPECT_EQ(report.bytes, std::filesystem::file_size(configuration->path));
    EXPECT_EQ(report.problem, "");
}

TEST_F(GreylistAdministrationTest, ABackupThatIsNotAcceptedSaysWhy) {
    databaseDaemon.answer = static_cast<std::int32_t>(DatabaseDaemon::Answer::journalFailed);
    GreyList::BackupReport const report = administration.backupNow();
    EXPECT_FALSE(report.accepted);
    EXPECT_NE(report.problem.find("could not be kept in the journal"), std::string::npos) << report.problem;
}

TEST_F(GreylistAdministrationTest, ABackupThatCannotBeWrittenSaysWhy) {
    configuration->path = directory.path() + "/missing/greylist.sql";
    GreyList::BackupReport const report = administration.backupNow();
    EXPECT_TRUE(report.attempted);
    EXPECT_FALSE(report.accepted);
    EXPECT_NE(report.problem.find("No such file or directory"), std::string::npos) << report.problem;
    EXPECT_EQ(scriptsHandedOver(), 0);
}

// What was counted since is forgotten, as it is in the tables: the next backup would bring it back otherwise.
TEST_F(GreylistAdministrationTest, ReputationIsBackedUpAndRestoredByItsOwnScript) {
    tuples().add(tuple(1), Status(100, 200, 0));
    IPAddress const client(std::string("192.0.2.1"));
    reputations().entry(client)->add(5, Reputation::Entry::Record(1, 2, 3, 4, 5));
    Reputation::BackupReport const report = administration.backUpReputations();
    EXPECT_TRUE(report.accepted) << report.problem;
    EXPECT_EQ(report.records, 1U);
    EXPECT_EQ(report.addresses, 1U);
    std::string const path = reputationConfiguration.path;
    reputations().entry(client)->add(6, Reputation::Entry::Record(9, 9, 9, 9, 9));
    reputations().find(IPAddress(std::string("192.0.2.2")));

    RestorePreview const preview = administration.previewRestore(path);
    EXPECT_TRUE(preview.ofReputation);
    EXPECT_TRUE(preview.complete);
    EXPECT_EQ(preview.scriptReputations, 1U);
    EXPECT_EQ(preview.tableReputations, 0U);
    EXPECT_EQ(preview.cachedAddresses, 2U);
    EXPECT_EQ(preview.newest, 0);

    RestoreOutcome const outcome = administration.restore(path, nullptr);
    EXPECT_TRUE(outcome.ofReputation);
    EXPECT_EQ(outcome.reputations, 1U);
    EXPECT_EQ(outcome.loadProblem, "");
    EXPECT_EQ(size(reputations()), 1U);
    SharedLock const hold(Reputation::Entry::s_lock);
    EXPECT_EQ(reputations().entry(client)->records().size(), 1U);
    EXPECT_EQ(size(tuples()), 1U) << "the greylist is not touched";
}

TEST_F(GreylistAdministrationTest, ReputationBackupThatCannotBeMadeSaysWhy) {
    reputationConfiguration.path.clear();
    Reputation::BackupReport const report = administration.backUpReputations();
    EXPECT_TRUE(report.attempted);
    EXPECT_FALSE(report.accepted);
    EXPECT_NE(report.problem.find("none is set"), std::string::npos) << report.problem;
}

TEST_F(GreylistAdministrationTest, APreviewComparesTheScriptWithWhatIsThere) {
    PrivateMariaDb::shared().run({"insert into grey_list values ('192.0.2.0/24', 'old@example.net', 'b@x', 1, 2)",
                                  "insert into autoexempt values ('192.0.2.0/24', 'a.example', 1, 2)",
                                  "insert into autoexempt values ('192.0.2.0/24', 'b.example', 1, 2)"},
                                 "fe_sender_history");
    tuples().add(tuple(1), Status(100, 200, 0));
    tuples().add(tuple(2), Status(100, 200, 0));
    tuples().add(tuple(3), Status(100, 200, 0));
    RestorePreview const preview = administration.previewRestore(write(script(twoRows)));
    EXPECT_EQ(preview.scriptTuples, 2U);
    EXPECT_EQ(preview.scriptExemptions, 0U);
    EXPECT_EQ(preview.newest, 150);
    EXPECT_TRUE(preview.complete);
    EXPECT_EQ(preview.tableTuples, 1U);
    EXPECT_EQ(preview.tableExemptions, 2U);
    EXPECT_EQ(preview.cachedTuples, 3U);
    EXPECT_EQ(preview.cachedExemptions, 0U);
    EXPECT_EQ(rows(), std::vector<std::string>{"old@example.net"}) << "nothing was replaced";
}

TEST_F(GreylistAdministrationTest, ARestoreReplacesTablesAndCaches) {
    PrivateMariaDb::shared().run({"insert into grey_list values ('192.0.2.0/24', 'old@example.net', 'b@x', 1, 2)"},
                                 "fe_sender_history");
    tuples().add(tuple(1), Status(100, 200, 0));
    std::uint64_t last = 0;
    std::uint64_t all = 0;
    std::string const text = script(twoRows);
    RestoreOutcome const outcome = administration.restore(write(text), [&](std::uint64_t done, std::uint64_t total) {
        EXPECT_GE(done, last);
        EXPECT_TRUE(administration.restoreRunning());
        last = done;
        all = total;
        return true;
    });
    EXPECT_EQ(all, text.size());
    EXPECT_GT(last, 0U);
    EXPECT_EQ(outcome.tuples, 2U);
    EXPECT_EQ(outcome.exemptions, 0U);
    EXPECT_EQ(outcome.loadProblem, "");
    EXPECT_EQ(rows(), (std::vector<std::string>{"one@example.net", "two@example.net"}));
    EXPECT_EQ(size(tuples()), 2U);
    EXPECT_EQ(administration.loads, 1);
    EXPECT_FALSE(administration.restoreRunning());
}

TEST_F(GreylistAdministrationTest, ARestoreThatIsAbandonedLeavesEverything) {
    PrivateMariaDb::shared().run({"insert into grey_list values ('192.0.2.0/24', 'old@example.net', 'b@x', 1, 2)"},
                                 "fe_sender_history");
    tuples().add(tuple(1), Status(100, 200, 0));
    int calls = 0;
    EXPECT_THROW(
        administration.restore(write(script(twoRows)), [&](std::uint64_t, std::uint64_t) { return ++calls < 3; }),
        Exception);
    EXPECT_EQ(rows(), std::vector<std::string>{"old@example.net"});
    EXPECT_EQ(size(tuples()), 1U);
    EXPECT_EQ(administration.loads, 0);
    EXPECT_FALSE(administration.restoreRunning()) << "and the next one may begin";
}

TEST_F(GreylistAdministrationTest, AScriptWithAMistakeLeavesEverything) {
    PrivateMariaDb::shared().run({"insert into grey_list values ('192.0.2.0/24', 'old@example.net', 'b@x', 1, 2)"},
                                 "fe_sender_history");
    EXPECT_THROW(administration.restore(write(script("\n('192.0.2.0/24', 'one@example.net')")), nullptr), Exception);
    EXPECT_EQ(rows(), std::vector<std::string>{"old@example.net"});
    EXPECT_EQ(administration.loads, 0);
}

TEST_F(GreylistAdministrationTest, RowsThatCannotBeLoadedAreNamed) {
    tuples().add(tuple(1), Status(100, 200, 0));
    RestoreOutcome const outcome = administration.restore(
        write(script("\n('192.0.2.0/24', 'fine@example.net', 'b@x', 1,2),\n('no network', 'bad@example.net', "
                     "'b@x', 1,2)")),
        nullptr);
    EXPECT_NE(outcome.loadProblem.find("row 2 of grey_list"), std::string::npos) << outcome.loadProblem;
    EXPECT_EQ(size(tuples()), 1U) << "the cache is as it was";
    EXPECT_EQ(rows().size(), 2U);
    EXPECT_EQ(administration.loads, 1);
}

TEST_F(GreylistAdministrationTest, AFileThatIsNotThereIsSaidBeforeAnythingHappens) {
    EXPECT_THROW(administration.restore(directory.path() + "/none.sql", nullptr), Exception);
    EXPECT_THROW(administration.previewRestore(directory.path() + "/none.sql"), Exception);
    EXPECT_EQ(administration.loads, 0);
}

TEST_F(GreylistAdministrationTest, WhileARestoreRunsNothingElseBegins) {
    std::string const path = write(script(twoRows));
    RestoreOutcome const outcome = administration.restore(path, [&](std::uint64_t, std::uint64_t) {
        EXPECT_THROW(administration.restore(path, nullptr), AdminRefusal);
        EXPECT_THROW(administration.backupNow(), AdminRefusal);
        return true;
    });
    EXPECT_EQ(outcome.tuples, 2U);
    EXPECT_EQ(scriptsHandedOver(), 0);
}

TEST_F(GreylistAdministrationTest, AScriptThatWasCutOffIsRefused) {
    std::string const whole = script(twoRows);
    EXPECT_THROW(administration.restore(write(whole.substr(0, whole.size() - 16)), nullptr), AdminRefusal);
    EXPECT_EQ(rows(), std::vector<std::string>{});
    EXPECT_EQ(administration.loads, 0);
    EXPECT_FALSE(administration.restoreRunning());
}

TEST_F(GreylistAdministrationTest, ABackupThatStillHasToRunRefusesTheRestoreThatItWouldUndo) {
    databaseDaemon.answer = static_cast<std::int32_t>(DatabaseDaemon::Answer::notSettled);
    EXPECT_THROW(administration.restore(write(script(twoRows)), nullptr), AdminRefusal);
    EXPECT_EQ(rows(), std::vector<std::string>{});
    EXPECT_EQ(administration.loads, 0);
    databaseDaemon.answer = static_cast<std::int32_t>(DatabaseDaemon::Answer::accepted);
    EXPECT_EQ(administration.restore(write(script(twoRows)), nullptr).tuples, 2U);
}

// Whoever may write to the directory puts another file there when the script has been looked at.
TEST_F(GreylistAdministrationTest, AFileThatIsPutInTheScriptsPlaceAfterTheLookIsNotRun) {
    std::string const path = write(script(twoRows));
    std::string const other = directory.path() + "/other.sql";
    std::ofstream(other) << script("\n('192.0.2.0/24', 'smuggled@example.net', 'b@example.org', 100,200)");
    int swaps = 0;
    databaseDaemon.onRequest = [&](std::string const&) { // between the look and the run
        std::filesystem::rename(other, path);
        ++swaps;
    };
    EXPECT_EQ(administration.restore(path, nullptr).tuples, 2U);
    EXPECT_EQ(swaps, 1);
    EXPECT_EQ(rows(), (std::vector<std::string>{"one@example.net", "two@example.net"}));
}

TEST_F(GreylistAdministrationTest, ALinkThatIsPutInTheScriptsPlaceAfterTheLookIsNotFollowed) {
    std::string const path = write(script(twoRows));
    std::string const other = directory.path() + "/other.sql";
    std::ofstream(other) << script("\n('192.0.2.0/24', 'smuggled@example.net', 'b@example.org', 100,200)");
    databaseDaemon.onRequest = [&](std::string const&) {
        std::filesystem::remove(path);
        std::filesystem::create_symlink(other, path);
    };
    EXPECT_EQ(administration.restore(path, nullptr).tuples, 2U);
    EXPECT_EQ(rows(), (std::vector<std::string>{"one@example.net", "two@example.net"}));
    EXPECT_THROW(administration.restore(path, nullptr), Exception) << "a link is not even looked at";
    EXPECT_THROW(administration.previewRestore(path), Exception);
}

TEST_F(GreylistAdministrationTest, WithoutADatabaseItSaysSo) {
    Database::Server nowhere;
    nowhere.socket = directory.path() + "/no-such-socket";
    InstalledServer const installed(nowhere);
    EXPECT_THROW(administration.previewRestore(write(script(twoRows))), Exception);
    EXPECT_THROW(administration.restore(write(script(twoRows)), nullptr), Exception);
    EXPECT_FALSE(administration.restoreRunning());
    GreyList::BackupReport const report = administration.backupNow();
    EXPECT_TRUE(report.attempted);
    EXPECT_FALSE(report.accepted);
    EXPECT_NE(report.problem, "");
}

} // namespace
} // namespace Vellum::Daemon
