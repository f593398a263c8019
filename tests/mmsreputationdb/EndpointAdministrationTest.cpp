// Endpoints in the daemon's requests for administrators, and in vellumctl's commands that send them.
#include "daemon/AdminHandlers.h"
#include "daemon/GreylistAdministration.h"
#include "daemon/LoadKeeper.h"

#include "foundation/database/DatabaseDaemon.h"
#include "greylist/GlDynamicExemptDatabase.h"
#include "greylist/GlRecordDatabase.h"
#include "tests/support/EndpointDaemon.h"
#include "tests/support/EndpointTables.h"
#include "tests/support/FakeDatabaseDaemon.h"
#include "tests/support/GreylistConfiguration.h"
#include "tests/support/UnreachableServer.h"
#include "tests/tools/ChildProgram.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace Vellum::Daemon {
namespace {

using MMSReputation::BackupReport;
using MMSReputation::RefCache;
using nlohmann::json;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

// What the daemon answers of endpoints; of the greylist and of sender reputation nothing is asked here.
struct EndpointServices : public GreylistAdministration {
    DaemonStatus status() const override { return {}; }
    BackupGate backupGate() const override { return {false, "not here"}; }
    BackupGate reputationGate() const override { return {}; }
    BackupGate endpointGate() const override {
        std::string const why = loads.whyNoBackup();
        return {why.empty(), why};
    }
    bool acceptEmpty() override { return false; }
    bool acceptEmptyReputations() override { return false; }
    bool acceptEmptyEndpoints() override { return loads.accept(); }
    void cachesLoaded() override {}

    LoadKeeper loads{endpointTables()};
};

class EndpointAdministration : public MMSReputation::EndpointTables {
  protected:
    EndpointAdministration() {
        GreyList::GlRecordDatabase(address()).createTable();
        GreyList::DynamicExemptDatabase(address()).createTable();
        BackupReport::set({});
        addAdminHandlers(m_services, m_daemon.dispatcher());
    }
    ChildResult ctl(std::vector<std::string> words) const {
        words.insert(words.begin(), "endpoint");
        words.insert(words.end(), {"--port", std::to_string(m_daemon.port())});
        return runChild(VELLUM_BINARY_DIR "/bin/vellumctl", words, {});
    }
    void fillTables() const {
        run({"insert into mms_reputation values " + values("1", m_slice, "3, 4") + "," + values("2", m_slice, "5, 0"),
             "insert into mms_reputation_expiry values ('1', 0), ('2', 0)", "insert into mms_exempt values ('11')",
             "insert into mms_blacklist values ('21'), ('22')"});
    }
    void lookAtTheCache() { m_cache = RefCache::instance(nullptr, 255); }

    std::uint32_t const m_slice = currentSlice();
    std::string const m_at = std::to_string(m_slice);
    GreyList::InstalledConfiguration m_greylist;
    EndpointServices m_services;
    MMSReputation::EndpointDaemon m_daemon;
};

TEST_F(EndpointAdministration, ReloadTellsWhatWasLoaded) {
    fillTables();
    ChildResult const result = ctl({"reload"});
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(result.out, "2 slices, 1 exempt and 2 blacklisted numbers loaded\n");
    EXPECT_EQ(result.exitCode, 0);
    lookAtTheCache();
    EXPECT_THAT(blacklistHeld(), ElementsAre("21", "22"));
    json const told = json::parse(ctl({"reload", "--json"}).out).at("endpoints");
    EXPECT_EQ(told.at("entries").at("size"), 2);
    EXPECT_EQ(told.at("exempt_list").at("load").at("rows"), 1);
}

TEST_F(EndpointAdministration, ReloadThatMetARefusedRowFailsAndNamesIt) {
    fillTables();
    run({"insert into mms_reputation values " + values("", m_slice, "1, 1"),
         "insert into mms_reputation_expiry values ('', 0)"});
    ChildResult const result = ctl({"reload"});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.out, "");
    EXPECT_THAT(result.err, testing::StartsWith("vellumctl endpoint reload: the endpoint entries could not be loaded: "
                                                "EntryRow (code 4, MMSReputationDatabase:72): Invalid "
                                                "EndpointReputation Entry; row "));
    EXPECT_THAT(result.err,
                testing::EndsWith(" of mms_reputation\n"
                                  "What comes behind it is not in memory, and loading is tried again every "
                                  "minute; while entries are missed, backups of endpoints stay off. Correct "
                                  "the row and reload, or give the table's rows up with \"vellumctl "
                                  "endpoint accept-empty\".\n"));
}

TEST_F(EndpointAdministration, ReloadWhoseListMetARefusedRowFailsAndNamesIt) {
    fillTables();
    run({"insert into mms_blacklist values ('')"});
    ChildResult const result = ctl({"reload"});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_THAT(result.err, HasSubstr("vellumctl endpoint reload: the blacklist could not be loaded: EntryRow (code 4, "
                                      "MMSReputationDatabase:117): Invalid MSISDN Entry; row 1 of mms_blacklist\n"));
}

TEST_F(EndpointAdministration, ReloadWithoutTheDatabaseFails) {
    UnreachableServer const away;
    ChildResult const result = ctl({"reload"});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_THAT(result.err, HasSubstr("the daemon could not reload, its log says why"));
}

TEST_F(EndpointAdministration, AcceptEmptyOpensTheGateOfACacheThatMissesEntries) {
    fillTables();
    load();
    ChildResult const nothing = ctl({"accept-empty"});
    EXPECT_EQ(nothing.out, "nothing to accept: backups are on\n");
    EXPECT_EQ(nothing.exitCode, 0);
    run({"insert into mms_reputation values " + values("", 1, "1, 1"),
         "insert into mms_reputation_expiry values ('', 0)"});
    load();
    FakeDatabaseDaemon const daemon;
    EXPECT_FALSE(m_services.endpointGate().open);
    EXPECT_FALSE(m_services.backUpEndpoints().accepted);
    ChildResult const accepted = ctl({"accept-empty"});
    EXPECT_THAT(accepted.out, HasSubstr("accepted: the next backup replaces the tables by "));
    EXPECT_TRUE(m_services.endpointGate().open);
    EXPECT_TRUE(m_services.backUpEndpoints().accepted);
}

TEST_F(EndpointAdministration, BackupTellsWhatItHandedOver) {
    add(1, m_slice, 1, 0);
    FakeDatabaseDaemon const daemon;
    BackupReport const report = m_services.backUpEndpoints();
    EXPECT_TRUE(report.accepted) << report.problem;
    EXPECT_EQ(report.subscribers, 1U);
    EXPECT_EQ(report.records, 1U);
    EXPECT_EQ(daemon.requests().size(), 1U);
}

TEST_F(EndpointAdministration, BackupThatCannotBeMadeSaysWhy) {
    m_configuration->path.clear();
    FakeDatabaseDaemon const daemon;
    BackupReport const report = m_services.backUpEndpoints();
    EXPECT_TRUE(report.attempted);
    EXPECT_FALSE(report.accepted);
    EXPECT_THAT(report.problem, HasSubstr("none is set"));
    EXPECT_THAT(daemon.requests(), IsEmpty());
}

TEST_F(EndpointAdministration, BackupIsRestoredAndWhatCameAfterItIsForgotten) {
    FakeDatabaseDaemon const daemon;
    add(1, m_slice, 3, 4, 2114377200);
    add(2, m_slice, 1, 0);
    ASSERT_TRUE(m_services.backUpEndpoints().accepted);
    run({"insert into mms_reputation values " + values("9", m_slice, "9, 9"),
         "insert into mms_reputation_expiry values ('9', 0)", "insert into mms_blacklist values ('21')"});
    add(3, m_slice, 7, 7);

    RestorePreview const preview = m_services.previewRestore(scriptPath());
    EXPECT_TRUE(preview.ofEndpoints);
    EXPECT_TRUE(preview.complete);
    EXPECT_EQ(preview.scriptSlices, 2U);
    EXPECT_EQ(preview.tableSlices, 1U);
    EXPECT_EQ(preview.cachedSubscribers, 3U);

    RestoreOutcome const outcome = m_services.restore(scriptPath(), nullptr);
    EXPECT_TRUE(outcome.ofEndpoints);
    EXPECT_EQ(outcome.slices, 2U);
    EXPECT_EQ(outcome.loadProblem, "");
    lookAtTheCache();
    EXPECT_THAT(held(), ElementsAre("15555550001 2114377200 " + m_at + ":3:4", "15555550002 0 " + m_at + ":1:0"));
    EXPECT_THAT(blacklistHeld(), ElementsAre("21")) << "lists are in no script, and stay";
    EXPECT_EQ(recordRows().size(), 2U);
}

TEST_F(EndpointAdministration, RestoreWhoseRowsCannotBeLoadedSaysSo) {
    FakeDatabaseDaemon const daemon;
    add(1, m_slice, 3, 4);
    ASSERT_TRUE(m_services.backUpEndpoints().accepted);
    run({"insert into mms_exempt values ('')"});
    RestoreOutcome const outcome = m_services.restore(scriptPath(), nullptr);
    EXPECT_EQ(outcome.slices, 1U);
    EXPECT_THAT(outcome.loadProblem, HasSubstr("row 1 of mms_exempt"));
}

} // namespace
} // namespace Vellum::Daemon
