#include "daemon/GreylistConfiguration.h"

#include <gtest/gtest.h>

namespace Vellum::Daemon {
namespace {

using GreyList::RefConfiguration;

TEST(GreylistConfiguration, AnswersWhatTheSettingsSay) {
    GreylistSettings settings;
    settings.delayMinutes = 1;
    settings.firstLifeHours = 2;
    settings.lifeDays = 3;
    settings.maxRecords = 4000;
    RefConfiguration const configuration(new GreylistConfiguration(settings, "/state/greylist.sql"));
    EXPECT_EQ(configuration->greylistMinutes(), 1);
    EXPECT_EQ(configuration->initialExpiryHours(), 2);
    EXPECT_EQ(configuration->ttlDays(), 3);
    EXPECT_EQ(configuration->maxRecords(), 4000);
    EXPECT_EQ(configuration->maxAutoExemptRecords(), 1000U);
    EXPECT_EQ(configuration->maxExemptRules(), 40U);
    EXPECT_EQ(configuration->backupPath(), "/state/greylist.sql");
    EXPECT_TRUE(configuration->backupEnabled());
    configuration->backupDone(); // nobody listens
}

TEST(GreylistConfiguration, BackupsNeedTheSettingAndTheGate) {
    bool loaded = false;
    GreylistSettings settings;
    RefConfiguration const allowed(new GreylistConfiguration(settings, "x", [&] { return loaded; }));
    settings.backup = false;
    RefConfiguration const forbidden(new GreylistConfiguration(settings, "x", [&] { return loaded; }));
    EXPECT_FALSE(allowed->backupEnabled());
    EXPECT_FALSE(forbidden->backupEnabled());
    loaded = true;
    EXPECT_TRUE(allowed->backupEnabled());
    EXPECT_FALSE(forbidden->backupEnabled());
}

TEST(GreylistConfiguration, TellsThatABackupWasHandedOver) {
    int told = 0;
    RefConfiguration const configuration(new GreylistConfiguration({}, "x", {}, [&] { ++told; }));
    configuration->backupDone();
    EXPECT_EQ(told, 1);
}

} // namespace
} // namespace Vellum::Daemon
