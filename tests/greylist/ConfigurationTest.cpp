#include "greylist/Configuration.h"

#include "foundation/Exception.h"
#include "tests/support/GreylistConfiguration.h"
#include "tests/support/OwnProcess.h"

#include <gtest/gtest.h>

#include <limits>
#include <memory>
#include <thread>
#include <vector>

namespace Vellum::GreyList {
namespace {

std::string maskOf(std::string const& address) {
    return Configuration::createMask(IPAddress(address)).asString();
}

TEST(Configuration, NetworkOfAnIpv4AddressIsItsSlash24) {
    EXPECT_EQ(maskOf("192.0.2.77"), "192.0.2.0/24");
    EXPECT_EQ(maskOf("0.0.0.0"), "0.0.0.0/24");
    EXPECT_EQ(maskOf("255.255.255.255"), "255.255.255.0/24");
}

TEST(Configuration, NetworkOfAMappedOrCompatibleAddressIsTheSlash24ThatItCarries) {
    IPAddressMask const mapped = Configuration::createMask(IPAddress("::ffff:192.0.2.77"));
    EXPECT_EQ(mapped, IPAddressMask(IPAddress("::ffff:192.0.2.0").asIpAddr(), 120));
    EXPECT_TRUE(mapped.matches(IPAddress("::ffff:192.0.2.0")));
    EXPECT_TRUE(mapped.matches(IPAddress("::ffff:192.0.2.255")));
    EXPECT_FALSE(mapped.matches(IPAddress("::ffff:192.0.1.255")));
    EXPECT_FALSE(mapped.matches(IPAddress("::ffff:192.0.3.0")));
    EXPECT_EQ(Configuration::createMask(IPAddress("::192.0.2.77")),
              IPAddressMask(IPAddress("::192.0.2.0").asIpAddr(), 120));
}

TEST(Configuration, NetworkOfAnyOtherIpv6AddressIsItsSlash64) {
    EXPECT_EQ(maskOf("2001:db8::1"), "2001:db8::/64");
    EXPECT_EQ(maskOf("2001:db8:1:2:ffff:ffff:ffff:ffff"), "2001:db8:1:2::/64");
    EXPECT_EQ(maskOf("::1"), "::/64") << "the loopback carries no IPv4 address";
    EXPECT_EQ(maskOf("::"), "::/64");
}

TEST(Configuration, UnknownAddressesShareANetworkOfTheirOwn) {
    IPAddressMask const unknown = Configuration::createMask(IPAddress());
    EXPECT_TRUE(unknown.prefix().isNull());
    EXPECT_EQ(unknown.cidr(), 64U);
}

TEST(Configuration, LimitsAreAQuarterAndAHundredthOfTheRecords) {
    AdjustableConfiguration configuration;
    auto const shares = [&](int records) {
        configuration.records = records;
        return std::pair(configuration.maxAutoExemptRecords(), configuration.maxExemptRules());
    };
    EXPECT_EQ(shares(1000), std::pair(250U, 10U));
    EXPECT_EQ(shares(99), std::pair(24U, 0U));
    EXPECT_EQ(shares(100), std::pair(25U, 1U));
    EXPECT_EQ(shares(3), std::pair(0U, 0U));
    EXPECT_EQ(shares(4), std::pair(1U, 0U));
    EXPECT_EQ(shares(0), std::pair(0U, 0U));
    EXPECT_EQ(shares(std::numeric_limits<int>::max()), std::pair(536870911U, 21474836U));
}

TEST(Configuration, NegativeRecordsAreNone) {
    AdjustableConfiguration configuration;
    for (int const records : {-1, -1000, std::numeric_limits<int>::min()}) {
        configuration.records = records;
        EXPECT_EQ(configuration.maxAutoExemptRecords(), 0U);
        EXPECT_EQ(configuration.maxExemptRules(), 0U);
    }
}

TEST(ConfigurationDeathTest, BeforeAnyIsInstalledTheHandleIsEmptyAndItsUseThrows) {
    expectInOwnProcess([] {
        RefConfiguration const none = RefConfiguration::instance(nullptr);
        EXPECT_TRUE(none.isNull());
        try {
            static_cast<void>(none->ttlDays());
            ADD_FAILURE() << "used";
        } catch (Exception const& refused) {
            EXPECT_EQ(refused.where(), "operator->");
            EXPECT_EQ(refused.code(), 1);
            EXPECT_EQ(refused.sourceFile(), "include2/VellumRefcounted");
            EXPECT_EQ(refused.line(), 359U);
        }
        auto* const installed = new AdjustableConfiguration;
        installed->days = 11;
        EXPECT_EQ(RefConfiguration::instance(installed)->ttlDays(), 11);
        EXPECT_EQ(RefConfiguration::instance(nullptr)->ttlDays(), 11) << "every new handle sees it";
        EXPECT_TRUE(none.isNull()) << "a handle taken before does not";
    });
}

// Tells when it goes.
class MortalConfiguration : public AdjustableConfiguration {
  public:
    explicit MortalConfiguration(bool& gone) : m_gone(gone) {}
    ~MortalConfiguration() override { m_gone = true; }

  private:
    bool& m_gone;
};

TEST(Configuration, InstallingAdoptsTheCreatorsReference) {
    auto* const configuration = new AdjustableConfiguration;
    RefConfiguration const handle = RefConfiguration::instance(configuration);
    EXPECT_EQ(handle.get(), configuration);
    EXPECT_EQ(configuration->references(), 2U) << "the installed one and this handle's";
    InstalledConfiguration const next;
    EXPECT_EQ(configuration->references(), 1U);
}

TEST(Configuration, ReplacedOneLivesUntilItsLastHandleGoes) {
    bool gone = false;
    auto handle = std::make_unique<RefConfiguration>(RefConfiguration::instance(new MortalConfiguration(gone)));
    InstalledConfiguration const next;
    next->days = 7;
    EXPECT_EQ(RefConfiguration::instance(nullptr)->ttlDays(), 7);
    EXPECT_FALSE(gone);
    EXPECT_EQ((*handle)->ttlDays(), 36);
    handle.reset();
    EXPECT_TRUE(gone);
}

TEST(Configuration, InstallingTheInstalledOneChangesNothing) {
    bool gone = false;
    auto* const configuration = new MortalConfiguration(gone);
    RefConfiguration::instance(configuration);
    RefConfiguration::instance(configuration);
    EXPECT_FALSE(gone);
    EXPECT_EQ(configuration->references(), 1U);
    EXPECT_EQ(RefConfiguration::instance(configuration).get(), configuration);
    InstalledConfiguration const next;
    EXPECT_TRUE(gone);
}

TEST(Configuration, HandlesMayBeTakenWhileOthersAreInstalled) {
    InstalledConfiguration const first;
    std::vector<std::thread> readers;
    std::atomic<bool> done{false};
    for (int n = 0; n < 2; ++n) {
        readers.emplace_back([&] {
            while (!done) {
                int const days = RefConfiguration::instance(nullptr)->ttlDays();
                EXPECT_TRUE(days >= 36 && days < 236) << days;
            }
        });
    }
    for (int n = 0; n < 200; ++n) {
        auto* const next = new AdjustableConfiguration;
        next->days = 36 + n;
        RefConfiguration::instance(next);
    }
    done = true;
    for (auto& reader : readers) {
        reader.join();
    }
}

} // namespace
} // namespace Vellum::GreyList
