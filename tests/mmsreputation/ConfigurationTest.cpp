#include "mmsreputation/Configuration.h"

#include "foundation/Exception.h"
#include "tests/support/EndpointConfiguration.h"
#include "tests/support/OwnProcess.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

namespace Vellum::MMSReputation {
namespace {

TEST(EndpointConfiguration, NoneInstalledThrowsUnderTheOtherFamilysName) {
    NoConfiguration const none;
    try {
        Configuration::instance();
        FAIL() << "not refused";
    } catch (Exception const& thrown) {
        EXPECT_EQ(thrown.where(), "EndpointReputation::Configuration");
        EXPECT_EQ(thrown.code(), 4);
        EXPECT_EQ(thrown.sourceFile(), "MMSReputationDatabase");
        EXPECT_EQ(thrown.line(), 18U);
        EXPECT_EQ(thrown.stringParameters(), std::vector<std::string>{"Reputation::Configuration is null"});
    }
}

TEST(EndpointConfiguration, InstalledOneIsAnswered) {
    InstalledConfiguration configuration;
    EXPECT_EQ(Configuration::instance(), configuration.operator->());
}

TEST(EndpointConfigurationDeathTest, StubInstallsItselfOnce) {
    expectInOwnProcess([] {
        ASSERT_EQ(Configuration::s_instance, nullptr);
        Configuration* const stub = StubConfiguration::instance();
        EXPECT_EQ(Configuration::instance(), stub);
        EXPECT_EQ(StubConfiguration::instance(), stub);
        EXPECT_EQ(stub->fnameBackup(), "");
        stub->resyncIfMaster();
        EXPECT_TRUE(stub->haMaster());
        EXPECT_EQ(stub->maxEntries(), 30000U);
        EXPECT_EQ(stub->windowSize(), 30U);
        EXPECT_TRUE(stub->enabled());
    });
}

TEST(EndpointConfigurationDeathTest, StubsOfManyThreadsAreOne) {
    expectInOwnProcess([] {
        std::vector<Configuration*> seen(8);
        std::vector<std::thread> threads;
        for (auto& mine : seen) {
            threads.emplace_back([&mine] { mine = StubConfiguration::instance(); });
        }
        for (auto& thread : threads) {
            thread.join();
        }
        for (auto* const mine : seen) {
            EXPECT_EQ(mine, Configuration::instance());
        }
    });
}

TEST(EndpointConfiguration, StubLeavesTheHostsConfigurationInPlace) {
    InstalledConfiguration configuration;
    EXPECT_EQ(StubConfiguration::instance(), configuration.operator->());
    EXPECT_EQ(Configuration::instance(), configuration.operator->());
}

} // namespace
} // namespace Vellum::MMSReputation
