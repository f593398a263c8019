#include "reputation/Configuration.h"

#include "tests/support/ReputationConfiguration.h"

#include <gtest/gtest.h>

namespace Vellum::Reputation {
namespace {

TEST(Configuration, WithoutOneAskingThrowsWhatLogReadersKnow) {
    ASSERT_EQ(Configuration::s_instance, nullptr);
    try {
        Configuration::instance();
        FAIL() << "nothing was thrown";
    } catch (Exception const& refused) {
        EXPECT_EQ(refused.asString(), "static Vellum::Reputation::Configuration* "
                                      "Vellum::Reputation::Configuration::instance() (code 4, ReputationEntry:14): "
                                      "Reputation::Configuration is null");
    }
}

TEST(Configuration, InstalledOneIsAnswered) {
    InstalledConfiguration installed;
    EXPECT_EQ(Configuration::instance(), &installed);
    installed.path = "/var/lib/x.sql";
    EXPECT_EQ(&Configuration::instance()->backupPath(), &installed.path);
    Configuration::instance()->backupDone();
    EXPECT_EQ(installed.backupsDone, 1);
    EXPECT_TRUE(Configuration::instance()->backupEnabled());
}

} // namespace
} // namespace Vellum::Reputation
