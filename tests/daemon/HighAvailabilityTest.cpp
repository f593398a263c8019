#include "daemon/HighAvailability.h"

#include "daemon/EndpointConfiguration.h"
#include "tests/daemon/SettingsRefusal.h"
#include "tests/support/CapturingLogger.h"
#include "tests/support/TemporaryDirectory.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sys/stat.h>

namespace Vellum::Daemon {
namespace {

using namespace std::chrono_literals;
using Lines = std::vector<std::string>;

HighAvailabilitySettings parse(std::string const& lines) {
    return settingsOf("high_availability", lines).highAvailability;
}

std::string errorOf(std::string const& lines) {
    return refusalOf([&] { parse(lines); });
}

TEST(HighAvailabilitySettings, EmptySectionAndExampleMeanTheDefaults) {
    EXPECT_EQ(parse(""), HighAvailabilitySettings{});
    EXPECT_EQ(Settings::load(VELLUM_SOURCE_DIR "/packaging/vellumd.toml").highAvailability, HighAvailabilitySettings{});
}

TEST(HighAvailabilitySettings, EveryKeyIsRead) {
    HighAvailabilitySettings expected;
    expected.activeCommand = {"/usr/bin/active", "-q"};
    expected.resyncCommand = {"/usr/bin/resync"};
    expected.commandLimit = 300s;
    expected.answerHolds = 0s;
    EXPECT_EQ(parse("active_command = [\"/usr/bin/active\", \"-q\"]\nresync_command = [\"/usr/bin/resync\"]\n"
                    "command_timeout_seconds = 300\nanswer_holds_seconds = 0\n"),
              expected);
    EXPECT_EQ(parse("active_file = \"state\"\n").activeFile, "/etc/vellum/state");
}

TEST(HighAvailabilitySettings, WhatCannotBeIsRefusedWithItsLine) {
    std::string const at = "/etc/vellum/v.toml:2: [high_availability] ";
    for (char const* key : {"active_command", "resync_command"}) {
        EXPECT_EQ(errorOf(std::string(key) + " = [\"active\"]\n"),
                  at + key +
                      " = [\"active\"]: expected an absolute path, then arguments: there is no shell to look for the "
                      "program");
    }
    EXPECT_EQ(errorOf("command_timeout_seconds = 0\n"), at + "command_timeout_seconds = 0: expected 1 to 300");
    EXPECT_EQ(errorOf("command_timeout_seconds = 301\n"), at + "command_timeout_seconds = 301: expected 1 to 300");
    EXPECT_EQ(errorOf("answer_holds_seconds = -1\n"), at + "answer_holds_seconds = -1: expected 0 to 3600");
    EXPECT_EQ(errorOf("answer_holds_seconds = 3601\n"), at + "answer_holds_seconds = 3601: expected 0 to 3600");
    EXPECT_EQ(errorOf("active_command = [\"/a\"]\nactive_file = \"/b\"\n"),
              at + "active_command = [\"/a\"]: expected at most one of active_file and active_command");
    EXPECT_EQ(errorOf("active = true\n"), at + "unknown key \"active\": expected active_command, active_file, "
                                               "answer_holds_seconds, command_timeout_seconds, resync_command");
}

class HighAvailabilityTest : public testing::Test {
  protected:
    // Asks afresh each time.
    HighAvailabilitySettings fresh() const {
        HighAvailabilitySettings settings;
        settings.answerHolds = 0s;
        settings.commandLimit = 60s;
        return settings;
    }
    HighAvailabilitySettings withFile() const {
        HighAvailabilitySettings settings = fresh();
        settings.activeFile = path("state");
        return settings;
    }
    HighAvailabilitySettings withCommand(std::string const& script) const {
        HighAvailabilitySettings settings = fresh();
        settings.activeCommand = {"/bin/sh", "-c", script};
        return settings;
    }
    std::string path(std::string const& name) const { return directory.path() + "/" + name; }
    void write(std::string const& name, std::string const& text) const { std::ofstream(path(name)) << text; }
    std::string read(std::string const& name) const {
        std::ifstream file(path(name));
        return {std::istreambuf_iterator<char>(file), {}};
    }
    Lines logged() {
        Lines const notes = log.notes();
        log.clear();
        return notes;
    }

    CapturingLogger log;
    TemporaryDirectory directory;
};

TEST_F(HighAvailabilityTest, WithoutASettingThisUnitIsTheActiveOne) {
    HighAvailability unit{HighAvailabilitySettings{}};
    EXPECT_FALSE(unit.lastAnswer());
    EXPECT_TRUE(unit.isActive());
    EXPECT_EQ(unit.lastAnswer(), true);
    unit.resync("greylist");
    EXPECT_EQ(logged(), Lines{});
}

TEST_F(HighAvailabilityTest, TheFilesFirstWordSaysIt) {
    HighAvailability unit(withFile());
    for (char const* text : {"active", "ACTIVE\n", " Master since noon\n", "\tmaster"}) {
        write("state", text);
        EXPECT_TRUE(unit.isActive()) << text;
    }
    for (char const* text :
         {"", "\n", "standby", "backup", "active_", "activ", "actively", "1", "not active", "masters"}) {
        write("state", text);
        EXPECT_FALSE(unit.isActive()) << text;
    }
    write("state", std::string(64, ' ') + "active"); // only the beginning is read
    EXPECT_FALSE(unit.isActive());
}

TEST_F(HighAvailabilityTest, ActivationsAreCounted) {
    HighAvailability unit(withFile());
    write("state", "active");
    EXPECT_TRUE(unit.isActive());
    EXPECT_EQ(unit.activations(), 0U) << "it was so from the start";
    write("state", "standby");
    EXPECT_FALSE(unit.isActive());
    EXPECT_EQ(unit.activations(), 0U);
    write("state", "active");
    EXPECT_TRUE(unit.isActiveNow());
    EXPECT_TRUE(unit.isActive());
    EXPECT_EQ(unit.activations(), 1U);
    write("state", "standby");
    EXPECT_FALSE(unit.isActiveNow());
    write("state", "active");
    EXPECT_TRUE(unit.isActive());
    EXPECT_EQ(unit.activations(), 2U);
}

TEST_F(HighAvailabilityTest, UnitThatStartsAsTheStandbyIsActivatedLater) {
    HighAvailability unit(withFile());
    EXPECT_FALSE(unit.isActive());
    write("state", "active");
    EXPECT_TRUE(unit.isActive());
    EXPECT_EQ(unit.activations(), 1U);
}

TEST_F(HighAvailabilityTest, BackupIsNotContentWithAnOldAnswer) {
    HighAvailabilitySettings settings = withFile();
    settings.answerHolds = std::chrono::seconds(3600);
    HighAvailability unit(settings);
    write("state", "active");
    EXPECT_TRUE(unit.isActive());
    write("state", "standby");
    EXPECT_TRUE(unit.isActive());
    EXPECT_FALSE(unit.isActiveNow());
}

TEST_F(HighAvailabilityTest, NoFileIsNoAndNoTrouble) {
    HighAvailability unit(withFile());
    EXPECT_FALSE(unit.isActive());
    EXPECT_EQ(logged(), Lines{"high availability: this unit is not the active one, nothing is backed up"});
    write("state", "active\n");
    EXPECT_TRUE(unit.isActive());
    EXPECT_TRUE(unit.isActive());
    EXPECT_EQ(logged(),
              Lines{"high availability: this unit is the active one now, and backs up as soon as it has loaded "
                    "the tables"});
    std::filesystem::remove(path("state"));
    EXPECT_FALSE(unit.isActive());
    EXPECT_EQ(logged(), Lines{"high availability: this unit is not the active one, nothing is backed up"});
}

TEST_F(HighAvailabilityTest, WhatIsNoRegularFileIsTroubleAndIsNotWaitedFor) {
    HighAvailability unit(withFile());
    ASSERT_EQ(::mkfifo(path("state").c_str(), 0600), 0);
    EXPECT_FALSE(unit.isActive());
    EXPECT_FALSE(unit.isActive());
    EXPECT_EQ(logged(), (Lines{"high availability: " + path("state") +
                                   " cannot be read, so this unit is not active: it is no regular file",
                               "high availability: this unit is not the active one, nothing is backed up"}));
    std::filesystem::remove(path("state"));
    write("state", "standby");
    EXPECT_FALSE(unit.isActive());
    EXPECT_EQ(logged(), Lines{"high availability: " + path("state") + " can be read again"});
}

TEST_F(HighAvailabilityTest, TheCommandsStatusSaysIt) {
    HighAvailability unit(withCommand("exit $(cat " + path("status") + ")"));
    write("status", "0");
    EXPECT_TRUE(unit.isActive());
    write("status", "1");
    EXPECT_FALSE(unit.isActive());
    EXPECT_EQ(logged(), Lines{"high availability: this unit is not the active one, nothing is backed up"});
    write("status", "2");
    EXPECT_FALSE(unit.isActive());
    EXPECT_FALSE(unit.isActive());
    EXPECT_EQ(logged(), Lines{"high availability: /bin/sh ended with status 2, so this unit is not active"});
    write("status", "0");
    EXPECT_TRUE(unit.isActive());
    EXPECT_EQ(logged(),
              (Lines{"high availability: /bin/sh answers again",
                     "high availability: this unit is the active one now, and backs up as soon as it has loaded "
                     "the tables"}));
}

TEST_F(HighAvailabilityTest, ACommandThatIsEndedByASignalMissingOrHangingIsNoAnswer) {
    std::string const standby = "high availability: this unit is not the active one, nothing is backed up";
    HighAvailability killed(withCommand("kill -KILL $$"));
    EXPECT_FALSE(killed.isActive());
    EXPECT_EQ(logged(), (Lines{"high availability: /bin/sh was ended by signal 9 (Killed), so this unit is not active",
                               standby}));
    HighAvailabilitySettings none = fresh();
    none.activeCommand = {"/nonexistent/command"};
    HighAvailability missing(none);
    EXPECT_FALSE(missing.isActive());
    EXPECT_EQ(logged(), (Lines{"high availability: /nonexistent/command cannot be started: No such file or directory, "
                               "so this unit is not active",
                               standby}));
    HighAvailabilitySettings slow = withCommand("sleep 600");
    slow.commandLimit = 1s;
    HighAvailability hanging(slow);
    EXPECT_FALSE(hanging.isActive());
    EXPECT_EQ(logged(), (Lines{"high availability: /bin/sh took longer than 1 s and was killed, so this unit is not "
                               "active",
                               standby}));
}

TEST_F(HighAvailabilityTest, AnAnswerHoldsForItsTimeAndNotLonger) {
    HighAvailabilitySettings settings = withCommand("echo x >> " + path("asked"));
    settings.answerHolds = 5s;
    HighAvailability::Clock::time_point now{};
    HighAvailability unit(settings, [&now] { return now; });
    EXPECT_TRUE(unit.isActive());
    now += 4999ms;
    EXPECT_TRUE(unit.isActive());
    EXPECT_EQ(read("asked"), "x\n");
    now += 1ms;
    EXPECT_TRUE(unit.isActive());
    EXPECT_EQ(read("asked"), "x\nx\n");
    unit.install(settings);
    EXPECT_TRUE(unit.isActive());
    EXPECT_EQ(read("asked"), "x\nx\n") << "the same settings";
    settings.activeCommand = {"/bin/false"};
    unit.install(settings);
    EXPECT_FALSE(unit.isActive()) << "others are asked at once";
}

TEST_F(HighAvailabilityTest, TheResyncIsToldTheFamilyAndRunsOnTheActiveUnitOnly) {
    HighAvailabilitySettings settings = withFile();
    settings.resyncCommand = {"/bin/sh", "-c", "echo $VELLUM_FAMILY >> " + path("resynced")};
    HighAvailability unit(settings);
    unit.resync("greylist");
    EXPECT_EQ(read("resynced"), "");
    write("state", "active");
    unit.resync("greylist");
    unit.resync("endpoint");
    EXPECT_EQ(read("resynced"), "greylist\nendpoint\n");
}

TEST_F(HighAvailabilityTest, AResyncThatFailsIsSaidOnceWithItsEnd) {
    HighAvailabilitySettings settings = fresh();
    settings.resyncCommand = {"/bin/sh", "-c", "exit $(cat " + path("status") + ")"};
    HighAvailability unit(settings);
    write("status", "7");
    unit.resync("endpoint");
    unit.resync("endpoint");
    EXPECT_EQ(logged(), Lines{"high availability: /bin/sh ended with status 7"});
    write("status", "0");
    unit.resync("endpoint");
    unit.resync("endpoint");
    EXPECT_EQ(logged(), Lines{"high availability: /bin/sh succeeds again"});
}

TEST_F(HighAvailabilityTest, PostponedResyncsComeWhenTheyAreRun) {
    HighAvailabilitySettings settings = fresh();
    settings.resyncCommand = {"/bin/sh", "-c", "echo $VELLUM_FAMILY >> " + path("resynced")};
    HighAvailability unit(settings);
    unit.postponeResyncs();
    unit.resync("greylist");
    unit.resync("endpoint");
    EXPECT_EQ(read("resynced"), "");
    unit.runPostponedResyncs(60s);
    EXPECT_EQ(read("resynced"), "greylist\nendpoint\n");
    unit.resync("reputation");
    EXPECT_EQ(read("resynced"), "greylist\nendpoint\nreputation\n") << "at once again";
}

// At the end of the process: three that hang must not take three times their limit.
TEST_F(HighAvailabilityTest, PostponedResyncsShareOneBudget) {
    HighAvailabilitySettings settings = fresh();
    settings.resyncCommand = {"/bin/sh", "-c", "echo $VELLUM_FAMILY >> " + path("resynced")};
    HighAvailability::Clock::time_point now{};
    HighAvailability unit(settings, [&now] { return now += 10s; }); // each look at the clock is ten seconds later
    unit.postponeResyncs();
    unit.resync("greylist");
    unit.resync("endpoint");
    unit.runPostponedResyncs(15s);
    EXPECT_EQ(read("resynced"), "greylist\n");
    EXPECT_EQ(logged(), Lines{"high availability: no time is left for /bin/sh after the backup of endpoint"});
}

TEST_F(HighAvailabilityTest, EndpointReputationIsToldOfBoth) {
    HighAvailabilitySettings settings = withFile();
    settings.resyncCommand = {"/bin/sh", "-c", "echo $VELLUM_FAMILY >> " + path("resynced")};
    auto const unit = std::make_shared<HighAvailability>(settings);
    EndpointSettings endpoint;
    EndpointConfiguration configuration(
        endpoint, "/b/endpoint.sql", [unit] { return unit->isActiveNow(); }, unit);
    EXPECT_FALSE(configuration.haMaster());
    write("state", "active");
    EXPECT_TRUE(configuration.haMaster());
    configuration.resyncIfMaster();
    EXPECT_EQ(read("resynced"), "endpoint\n");
    endpoint.backup = false;
    configuration.change(endpoint);
    EXPECT_FALSE(configuration.haMaster()) << "backups are switched off";
}

} // namespace
} // namespace Vellum::Daemon
