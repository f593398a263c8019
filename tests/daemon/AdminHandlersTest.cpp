#include "daemon/AdminHandlers.h"

#include "foundation/Exception.h"
#include "greylist/DynamicExemptCache.h"
#include "greylist/LoadReport.h"
#include "greylist/TupleCache.h"
#include "reputation/Cache.h"
#include "reputation/LoadReport.h"
#include "tests/daemon/AdminClient.h"
#include "tests/support/GreylistConfiguration.h"
#include "tests/support/GreylistIdentities.h"
#include "tests/support/LoadedEndpoints.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <atomic>
#include <ctime>
#include <unistd.h>
#include <vector>

namespace Vellum::Daemon {
namespace {

using nlohmann::json;

// Services that do as the test says, and remember what they were asked.
struct FakeServices : public AdminServices {
    DaemonStatus status() const override { return answeredStatus; }
    BackupGate backupGate() const override { return gate; }
    BackupGate reputationGate() const override { return reputationsGate; }
    BackupGate endpointGate() const override { return endpointsGate; }
    MMSReputation::BackupReport backUpEndpoints() override {
        ++endpointBackups;
        return endpointReport;
    }
    bool acceptEmptyEndpoints() override { return endpointChanges; }
    GreyList::BackupReport backupNow() override {
        ++backups;
        return report;
    }
    Reputation::BackupReport backUpReputations() override {
        ++reputationBackups;
        return reputationReport;
    }
    RestorePreview previewRestore(std::string const& path) override {
        paths.push_back(path);
        return preview;
    }
    RestoreOutcome restore(std::string const& path, RestoreProgress const& progress) override {
        paths.push_back(path);
        return restoring(progress);
    }
    bool acceptEmpty() override { return changes; }
    bool acceptEmptyReputations() override { return reputationChanges; }

    DaemonStatus answeredStatus;
    BackupGate gate;
    BackupGate reputationsGate;
    GreyList::BackupReport report;
    Reputation::BackupReport reputationReport;
    std::atomic<int> reputationBackups{0};
    bool reputationChanges = false;
    BackupGate endpointsGate;
    MMSReputation::BackupReport endpointReport{{true, true, 1002, 42, 4, 1900, ""}, 20, 300};
    std::atomic<int> endpointBackups{0};
    bool endpointChanges = false;
    RestorePreview preview;
    std::function<RestoreOutcome(RestoreProgress const&)> restoring = [](RestoreProgress const&) {
        return RestoreOutcome{};
    };
    bool changes = false;
    std::atomic<int> backups{0};
    std::vector<std::string> paths; // of restores and their previews
};

class AdminHandlers : public testing::Test, public MMSReputation::LoadedEndpoints, protected AdminClient {
  protected:
    AdminHandlers() {
        MMSReputation::LoadReport::set({});
        MMSReputation::BackupReport::set({});
        GreyList::LoadReport::setTuples({});
        GreyList::LoadReport::setExemptions({});
        GreyList::BackupReport::set({});
        Reputation::LoadReport::set({});
        Reputation::BackupReport::set({});
        (**Reputation::RefCache::instance()).clear();
        (**GreyList::TupleCache::instance()).clear();
        (**GreyList::DynamicExemptCache::instance()).clear();
        addAdminHandlers(m_services, m_dispatcher);
        connect();
    }
    ~AdminHandlers() override { disconnect(); }

    GreyList::InstalledConfiguration m_greylistConfiguration;
    FakeServices m_services;
};

TEST_F(AdminHandlers, StatusTellsEverythingOfTheDaemonAndItsCaches) {
    long const now = std::time(nullptr);
    m_services.answeredStatus = {"1.2.3",
                                 now - 100,
                                 "/etc/vellum/vellumd.toml",
                                 {"127.0.0.1:10023"},
                                 {{"policy", {{"defer", "new", 7}, {"pass", "known", 9}}},
                                  {"milter", {{"pass", "known", 8}, {"reject", "bad-reputation", 1}}}},
                                 {true, now - 5, ""},
                                 {{4, {.ran = {{17, now - 3650}}, .refused = {{18, now - 49, "no such column"}}}}}};
    GreyList::LoadReport::setTuples({true, true, 17, ""});
    GreyList::LoadReport::setExemptions({true, false, 0, "row 3 of autoexempt"});
    GreyList::BackupReport::set({{true, true, now - 50, 40, 1, 1500, ""}, 16, 2});
    m_services.gate = {false, "the exemptions could not be loaded"};
    (**GreyList::TupleCache::instance()).add(GreyList::tuple(1), GreyList::Status(0, 0, 0));

    json status = ask(IPC::PduType::adminStatus);
    EXPECT_EQ(status.erase("reputation"), 1U); // have tests of their own
    EXPECT_EQ(status.erase("endpoints"), 1U);
    EXPECT_GE(status["uptime_seconds"], 100);
    EXPECT_LE(status["uptime_seconds"], 160);
    status.erase("uptime_seconds");
    json const capacity = (**GreyList::TupleCache::instance()).maxSize();
    EXPECT_EQ(status,
              json({{"version", "1.2.3"},
                    {"pid", ::getpid()},
                    {"started", now - 100},
                    {"settings", "/etc/vellum/vellumd.toml"},
                    {"policy_listeners", {"127.0.0.1:10023"}},
                    {"greylist",
                     {{"tuples",
                       {{"size", 1},
                        {"capacity", capacity},
                        {"load", {{"attempted", true}, {"loaded", true}, {"rows", 17}, {"problem", ""}}}}},
                      {"exemptions",
                       {{"size", 0},
                        {"capacity", capacity},
                        {"load",
                         {{"attempted", true}, {"loaded", false}, {"rows", 0}, {"problem", "row 3 of autoexempt"}}}}}}},
                    {"backup",
                     {{"allowed", false},
                      {"reason", "the exemptions could not be loaded"},
                      {"last",
                       {{"accepted", true},
                        {"started", now - 50},
                        {"milliseconds", 40},
                        {"tuples", 16},
                        {"exemptions", 2},
                        {"left_out", 1},
                        {"bytes", 1500},
                        {"problem", ""}}},
                      {"ran", {{"script", 17}, {"accepted", now - 3650}}},
                      {"refused", {{"script", 18}, {"time", now - 49}, {"reason", "no such column"}}}}},
                    {"database", {{"reachable", true}, {"as_of", now - 5}, {"problem", ""}}},
                    {"active", nullptr},
                    {"decisions",
                     {{{"action", "defer"}, {"reason", "new"}, {"count", 7}},
                      {{"action", "pass"}, {"reason", "known"}, {"count", 17}},
                      {{"action", "reject"}, {"reason", "bad-reputation"}, {"count", 1}}}},
                    {"fronts",
                     {{{"front", "policy"},
                       {"decisions",
                        {{{"action", "defer"}, {"reason", "new"}, {"count", 7}},
                         {{"action", "pass"}, {"reason", "known"}, {"count", 9}}}}},
                      {{"front", "milter"},
                       {"decisions",
                        {{{"action", "pass"}, {"reason", "known"}, {"count", 8}},
                         {{"action", "reject"}, {"reason", "bad-reputation"}, {"count", 1}}}}}}}}));
}

TEST_F(AdminHandlers, WhatIsNotKnownYetIsNull) {
    json const status = ask(IPC::PduType::adminStatus);
    EXPECT_TRUE(status.at("backup").at("last").is_null());
    EXPECT_TRUE(status.at("database").at("reachable").is_null());
    EXPECT_EQ(status.at("decisions"), json::array());
    EXPECT_EQ(status.at("fronts"), json::array());
}

TEST_F(AdminHandlers, BytesThatAreNotUtf8DoNotSpoilAnAnswer) {
    m_services.answeredStatus.settingsPath = "/etc/\xff.toml";
    EXPECT_EQ(ask(IPC::PduType::adminStatus).at("settings"), "/etc/\xef\xbf\xbd.toml");
}

TEST_F(AdminHandlers, ABackupAnswersItsNumbers) {
    m_services.report = {{true, true, 1000, 40, 1, 1500, ""}, 16, 2};
    m_services.reputationReport = {{true, true, 1001, 41, 3, 1700, ""}, 120, 10};
    EXPECT_EQ(ask(IPC::PduType::adminBackup), json({{"accepted", true},
                                                    {"started", 1000},
                                                    {"milliseconds", 40},
                                                    {"tuples", 16},
                                                    {"exemptions", 2},
                                                    {"left_out", 1},
                                                    {"bytes", 1500},
                                                    {"problem", ""},
                                                    {"reputation",
                                                     {{"accepted", true},
                                                      {"started", 1001},
                                                      {"milliseconds", 41},
                                                      {"records", 120},
                                                      {"addresses", 10},
                                                      {"left_out", 3},
                                                      {"bytes", 1700},
                                                      {"problem", ""}}},
                                                    {"endpoints",
                                                     {{"accepted", true},
                                                      {"started", 1002},
                                                      {"milliseconds", 42},
                                                      {"slices", 300},
                                                      {"subscribers", 20},
                                                      {"left_out", 4},
                                                      {"bytes", 1900},
                                                      {"problem", ""}}}}));
    EXPECT_EQ(m_services.backups, 1);
    EXPECT_EQ(m_services.reputationBackups, 1);
    EXPECT_EQ(m_services.endpointBackups, 1);
    EXPECT_TRUE(m_log.waitForNote("administration: backup of 300 slices of endpoints of 20 subscribers handed over"));
    EXPECT_TRUE(m_log.waitForNote("administration: backup of 120 hours of sender reputation of 10 addresses handed "
                                  "over"));
    EXPECT_TRUE(m_log.waitForNote("administration: backup of 16 tuples and 2 exemptions handed over"));
}

TEST_F(AdminHandlers, ABackupThatTheDatabaseDaemonRefusedIsAnError) {
    m_services.report.attempted = true;
    m_services.report.problem = "the daemon cannot be reached";
    json const answer = ask(IPC::PduType::adminBackup);
    EXPECT_EQ(answer.at("accepted"), false);
    EXPECT_EQ(answer.at("error"), "the daemon cannot be reached");
}

TEST_F(AdminHandlers, GateOfTheGreylistHoldsUpOnlyItsOwnBackup) {
    m_services.gate = {false, "row 17 of grey_list"};
    json const answer = ask(IPC::PduType::adminBackup);
    EXPECT_EQ(answer.at("error"), "backups are off: row 17 of grey_list");
    EXPECT_FALSE(answer.contains("accepted"));
    EXPECT_EQ(m_services.backups, 0);
    EXPECT_EQ(m_services.reputationBackups, 1);
    EXPECT_EQ(m_services.endpointBackups, 1);
}

TEST_F(AdminHandlers, GateOfSenderReputationHoldsUpOnlyItsOwnBackup) {
    m_services.report = {{true, true, 1000, 40, 1, 1500, ""}, 16, 2};
    m_services.reputationsGate = {false, "row 3 of sender_reputation"};
    json const answer = ask(IPC::PduType::adminBackup);
    EXPECT_EQ(answer.at("accepted"), true);
    EXPECT_EQ(answer.at("reputation"), json({{"error", "backups are off: row 3 of sender_reputation"}}));
    EXPECT_EQ(answer.at("error"), "sender reputation: backups are off: row 3 of sender_reputation");
    EXPECT_EQ(m_services.backups, 1);
    EXPECT_EQ(m_services.reputationBackups, 0);
    EXPECT_EQ(m_services.endpointBackups, 1);
}

TEST_F(AdminHandlers, GateOfEndpointsHoldsUpOnlyTheirOwnBackup) {
    m_services.report = {{true, true, 1000, 40, 1, 1500, ""}, 16, 2};
    m_services.reputationReport.accepted = true;
    m_services.endpointsGate = {false, "row 3 of mms_reputation"};
    json const answer = ask(IPC::PduType::adminBackup);
    EXPECT_EQ(answer.at("accepted"), true);
    EXPECT_FALSE(answer.at("reputation").contains("error"));
    EXPECT_EQ(answer.at("endpoints"), json({{"error", "backups are off: row 3 of mms_reputation"}}));
    EXPECT_EQ(answer.at("error"), "endpoints: backups are off: row 3 of mms_reputation");
    EXPECT_EQ(m_services.backups, 1);
    EXPECT_EQ(m_services.reputationBackups, 1);
    EXPECT_EQ(m_services.endpointBackups, 0);
}

TEST_F(AdminHandlers, FirstFamilyThatFailedIsTheError) {
    m_services.report = {{true, true, 1000, 40, 1, 1500, ""}, 16, 2};
    m_services.reputationReport.problem = "one";
    m_services.endpointReport = {};
    m_services.endpointReport.problem = "two";
    json const answer = ask(IPC::PduType::adminBackup);
    EXPECT_EQ(answer.at("error"), "sender reputation: one");
    EXPECT_EQ(answer.at("endpoints").at("error"), "two");
}

TEST_F(AdminHandlers, StatusTellsOfEndpoints) {
    MMSReputation::LoadReport loads;
    loads.entries = {true, true, 120, ""};
    loads.exemptList = {true, true, 3, ""};
    loads.blacklist = {true, false, 0, "row 2 of mms_blacklist"};
    MMSReputation::LoadReport::set(loads);
    MMSReputation::BackupReport::set({{true, false, 1000, 40, 1, 1500, "no answer"}, 10, 110});
    m_services.endpointsGate = {false, "row 3 of mms_reputation"};
    m_services.answeredStatus.scripts[9].refused = {20, 1500, "out of range"};
    add(1);
    EXPECT_EQ(ask(IPC::PduType::adminStatus).at("endpoints"),
              json({{"entries",
                     {{"size", 1},
                      {"capacity", 10000},
                      {"load", {{"attempted", true}, {"loaded", true}, {"rows", 120}, {"problem", ""}}}}},
                    {"exempt_list", {{"load", {{"attempted", true}, {"loaded", true}, {"rows", 3}, {"problem", ""}}}}},
                    {"blacklist",
                     {{"load",
                       {{"attempted", true}, {"loaded", false}, {"rows", 0}, {"problem", "row 2 of mms_blacklist"}}}}},
                    {"backup",
                     {{"allowed", false},
                      {"reason", "row 3 of mms_reputation"},
                      {"last",
                       {{"accepted", false},
                        {"started", 1000},
                        {"milliseconds", 40},
                        {"slices", 110},
                        {"subscribers", 10},
                        {"left_out", 1},
                        {"bytes", 1500},
                        {"problem", "no answer"}}},
                      {"ran", nullptr},
                      {"refused", {{"script", 20}, {"time", 1500}, {"reason", "out of range"}}}}}}));
}

TEST_F(AdminHandlers, AcceptEmptyOfEndpointsIsItsOwn) {
    add(1);
    m_services.endpointChanges = true;
    EXPECT_EQ(ask(IPC::PduType::adminAcceptEmpty, {{"family", "endpoint"}}),
              json({{"changed", true}, {"subscribers", 1}}));
    EXPECT_TRUE(m_log.waitForNote("backups of endpoints, 1 subscribers, may now replace tables"));
    m_services.endpointChanges = false;
    EXPECT_EQ(ask(IPC::PduType::adminAcceptEmpty, {{"family", "endpoint"}}).at("changed"), false);
    EXPECT_EQ(ask(IPC::PduType::adminAcceptEmpty, {{"family", "greylist"}}).at("changed"), false);
}

TEST_F(AdminHandlers, ScriptOfEndpointsIsTold) {
    m_services.preview.ofEndpoints = true;
    m_services.preview.scriptSlices = 120;
    m_services.preview.tableSlices = 130;
    m_services.preview.cachedSubscribers = 14;
    json const preview = ask(IPC::PduType::adminRestore, {{"path", "/e.sql"}, {"dry_run", true}});
    EXPECT_EQ(preview.at("script").at("slices"), 120);
    EXPECT_EQ(preview.at("tables").at("slices"), 130);
    EXPECT_EQ(preview.at("caches").at("subscribers"), 14);
    m_services.restoring = [](RestoreProgress const&) {
        RestoreOutcome outcome;
        outcome.ofEndpoints = true;
        outcome.slices = 120;
        return outcome;
    };
    EXPECT_EQ(ask(IPC::PduType::adminRestore, {{"path", "/e.sql"}}).at("loaded").at("slices"), 120);
    EXPECT_TRUE(m_log.waitForNote("restore of /e.sql done, 120 slices of endpoints loaded"));
}

TEST_F(AdminHandlers, BackupOfSenderReputationThatWasRefusedIsAnError) {
    m_services.report = {{true, true, 1000, 40, 1, 1500, ""}, 16, 2};
    m_services.reputationReport.problem = "the daemon cannot be reached";
    json const answer = ask(IPC::PduType::adminBackup);
    EXPECT_EQ(answer.at("error"), "sender reputation: the daemon cannot be reached");
    EXPECT_EQ(answer.at("reputation").at("error"), "the daemon cannot be reached");
}

TEST_F(AdminHandlers, StatusTellsOfSenderReputation) {
    Reputation::LoadReport load;
    load.attempted = true;
    load.problem = "row 3 of sender_reputation";
    Reputation::LoadReport::set(load);
    m_services.reputationsGate = {false, "row 3 of sender_reputation"};
    Reputation::BackupReport::set({{true, false, 1000, 40, 1, 1500, "no answer"}, 120, 10});
    (**Reputation::RefCache::instance()).find(IPAddress(std::string("192.0.2.1")));
    m_services.answeredStatus.scripts[5].ran = {19, 900};
    EXPECT_EQ(
        ask(IPC::PduType::adminStatus).at("reputation"),
        json({{"entries",
               {{"size", 1},
                {"capacity", 10000},
                {"load",
                 {{"attempted", true}, {"loaded", false}, {"rows", 0}, {"problem", "row 3 of sender_reputation"}}}}},
              {"backup",
               {{"allowed", false},
                {"reason", "row 3 of sender_reputation"},
                {"last",
                 {{"accepted", false},
                  {"started", 1000},
                  {"milliseconds", 40},
                  {"records", 120},
                  {"addresses", 10},
                  {"left_out", 1},
                  {"bytes", 1500},
                  {"problem", "no answer"}}},
                {"ran", {{"script", 19}, {"accepted", 900}}},
                {"refused", nullptr}}}}));
}

TEST_F(AdminHandlers, ScriptOfSenderReputationIsTold) {
    m_services.preview.ofReputation = true;
    m_services.preview.scriptReputations = 120;
    m_services.preview.tableReputations = 130;
    m_services.preview.cachedAddresses = 14;
    json const preview = ask(IPC::PduType::adminRestore, {{"path", "/r.sql"}, {"dry_run", true}});
    EXPECT_EQ(preview.at("script").at("reputations"), 120);
    EXPECT_EQ(preview.at("tables").at("reputations"), 130);
    EXPECT_EQ(preview.at("caches").at("addresses"), 14);
    m_services.restoring = [](RestoreProgress const&) {
        RestoreOutcome outcome;
        outcome.ofReputation = true;
        outcome.reputations = 120;
        return outcome;
    };
    EXPECT_EQ(ask(IPC::PduType::adminRestore, {{"path", "/r.sql"}}).at("loaded").at("reputations"), 120);
    EXPECT_TRUE(m_log.waitForNote("restore of /r.sql done, 120 hours of sender reputation loaded"));
}

TEST_F(AdminHandlers, AcceptEmptyOfSenderReputationIsItsOwn) {
    m_services.reputationChanges = true;
    EXPECT_EQ(ask(IPC::PduType::adminAcceptEmpty, {{"family", "reputation"}}),
              json({{"changed", true}, {"addresses", 0}}));
    EXPECT_TRUE(m_log.waitForNote("backups of sender reputation, 0 addresses, may now replace tables"));
    EXPECT_EQ(ask(IPC::PduType::adminAcceptEmpty, {{"family", "greylist"}}).at("changed"), false);
    EXPECT_TRUE(ask(IPC::PduType::adminAcceptEmpty, {{"family", "other"}}).contains("error"));
    EXPECT_TRUE(ask(IPC::PduType::adminAcceptEmpty, {{"family", 7}}).contains("error"));
}

TEST_F(AdminHandlers, ADryRunTellsWhatWouldBeReplacedAndReplacesNothing) {
    m_services.preview = {1000, 2000, 10, 2, 1900, true, 11, 3, 12, 4};
    m_services.restoring = [](RestoreProgress const&) -> RestoreOutcome {
        throw AdminRefusal("restored!");
    };
    EXPECT_EQ(ask(IPC::PduType::adminRestore, {{"path", "/backup.sql"}, {"dry_run", true}}),
              json({{"path", "/backup.sql"},
                    {"script",
                     {{"bytes", 1000},
                      {"modified", 2000},
                      {"tuples", 10},
                      {"exemptions", 2},
                      {"newest", 1900},
                      {"complete", true}}},
                    {"tables", {{"tuples", 11}, {"exemptions", 3}}},
                    {"caches", {{"tuples", 12}, {"exemptions", 4}}}}));
    EXPECT_EQ(m_services.paths, std::vector<std::string>{"/backup.sql"});
}

TEST_F(AdminHandlers, ARestoreAnswersWhatWasLoaded) {
    m_services.restoring = [](RestoreProgress const&) {
        return RestoreOutcome{10, 2, 77, ""};
    };
    EXPECT_EQ(ask(IPC::PduType::adminRestore, {{"path", "/backup.sql"}}),
              json({{"path", "/backup.sql"},
                    {"restored", true},
                    {"loaded", {{"tuples", 10}, {"exemptions", 2}}},
                    {"milliseconds", 77}}));
    EXPECT_TRUE(m_log.waitForNote("restore of /backup.sql done, 10 tuples and 2 exemptions loaded"));
}

TEST_F(AdminHandlers, ARestoreThatCouldNotBeLoadedSaysBoth) {
    m_services.restoring = [](RestoreProgress const&) {
        return RestoreOutcome{0, 2, 77, "row 3 of grey_list"};
    };
    json const answer = ask(IPC::PduType::adminRestore, {{"path", "/backup.sql"}});
    EXPECT_EQ(answer.at("restored"), true);
    EXPECT_EQ(answer.at("error"), "the tables were restored, but could not be loaded: row 3 of grey_list");
}

TEST_F(AdminHandlers, ProgressArrivesWhileTheRestoreRuns) {
    std::atomic<bool> seen{false};
    m_services.restoring = [&](RestoreProgress const& progress) {
        while (!seen) {
            EXPECT_TRUE(progress(3, 8));
        }
        return RestoreOutcome{};
    };
    send(IPC::PduType::adminRestore, R"({"path": "/backup.sql"})");
    IPC::Pdu const unit = receive();
    seen = true;
    EXPECT_TRUE(unit.is(IPC::PduType::adminProgress));
    EXPECT_EQ(json::parse(unit.data().view()), json({{"done", 3}, {"total", 8}}));
    for (IPC::Pdu next = receive(); !next.is(IPC::PduType::adminReply); next = receive()) {
        EXPECT_TRUE(next.is(IPC::PduType::adminProgress));
    }
}

TEST_F(AdminHandlers, AClientThatGoesAwayAbandonsTheRestore) {
    std::atomic<bool> begun{false};
    std::atomic<bool> abandoned{false};
    m_services.restoring = [&](RestoreProgress const& progress) -> RestoreOutcome {
        begun = true;
        while (progress(3, 8)) {
        }
        abandoned = true;
        throw AdminRefusal("abandoned");
    };
    send(IPC::PduType::adminRestore, R"({"path": "/backup.sql"})");
    receive();
    m_client.close();
    EXPECT_TRUE(m_log.waitForNote("the client that asked for a restore is gone"));
    m_dispatcher.stop();
    EXPECT_TRUE(abandoned);
}

TEST_F(AdminHandlers, PathsThatAreNotAbsoluteAreRefused) {
    for (json const& request :
         {json({{"path", "backup.sql"}}), json({{"path", ""}}), json({{"path", std::string("/a\0b", 4)}}),
          json({{"path", 7}}), json({{"file", "/backup.sql"}}), json({{"path", "/x"}, {"dry_run", "yes"}})}) {
        json const answer = ask(IPC::PduType::adminRestore, request);
        EXPECT_TRUE(answer.contains("error")) << request;
        EXPECT_EQ(answer.size(), 1U) << request;
    }
    EXPECT_TRUE(m_services.paths.empty());
}

TEST_F(AdminHandlers, AcceptEmptyTellsWhatMayReplaceTheTables) {
    m_services.changes = true;
    EXPECT_EQ(ask(IPC::PduType::adminAcceptEmpty), json({{"changed", true}, {"tuples", 0}, {"exemptions", 0}}));
    EXPECT_TRUE(m_log.waitForNote("backups of 0 tuples and 0 exemptions may now replace tables"));
    m_services.changes = false;
    EXPECT_EQ(ask(IPC::PduType::adminAcceptEmpty).at("changed"), false);
}

TEST_F(AdminHandlers, KeysThatARequestDoesNotKnowAreIgnored) {
    EXPECT_TRUE(askText(IPC::PduType::adminStatus, R"({"colour": "red", "nested": {"a": [1, 2]}})").contains("pid"));
}

TEST_F(AdminHandlers, APayloadThatIsNoJsonObjectIsAnsweredWithAnError) {
    for (std::string const& payload :
         {std::string("{"), std::string("nonsense"), std::string("[]"), std::string("7"), std::string("null"),
          std::string("\0", 1), std::string("\xff\xfe{}"), std::string("{\"path\": \"\xff\"}"), std::string("{} {}"),
          std::string(100'000, '['), std::string(100'000, '{')}) {
        for (IPC::PduType const request : {IPC::PduType::adminStatus, IPC::PduType::adminBackup,
                                           IPC::PduType::adminRestore, IPC::PduType::adminAcceptEmpty}) {
            json const answer = askText(request, payload);
            EXPECT_TRUE(answer.contains("error")) << payload.substr(0, 20);
            EXPECT_EQ(answer.size(), 1U);
        }
    }
    EXPECT_TRUE(ask(IPC::PduType::adminStatus).contains("pid")) << "and the connection lives on";
    EXPECT_EQ(m_services.backups, 0);
}

TEST_F(AdminHandlers, WhatAServiceThrowsBecomesTheAnswer) {
    m_services.restoring = [](RestoreProgress const&) -> RestoreOutcome {
        throw Exception("QueryFile::execute", Exception::failure).stringParameter("statement 3");
    };
    EXPECT_NE(ask(IPC::PduType::adminRestore, {{"path", "/x"}}).at("error").get<std::string>().find("statement 3"),
              std::string::npos);
    m_services.restoring = [](RestoreProgress const&) -> RestoreOutcome {
        throw std::bad_alloc();
    };
    EXPECT_TRUE(ask(IPC::PduType::adminRestore, {{"path", "/x"}}).contains("error"));
    EXPECT_TRUE(m_log.waitForNote("administration: restore refused or failed: "));
}

} // namespace
} // namespace Vellum::Daemon
