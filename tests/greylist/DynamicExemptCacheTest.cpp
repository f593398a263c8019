#include "greylist/DynamicExemptCache.h"

#include "foundation/Exception.h"
#include "tests/support/CapturingLogger.h"
#include "tests/support/GreylistConfiguration.h"
#include "tests/support/GreylistIdentities.h"
#include "tests/support/OwnProcess.h"

#include <gtest/gtest.h>

namespace Vellum::GreyList {
namespace {

constexpr long expiry = 1700000000;
constexpr long life = 36 * 86400L;
constexpr char const* domain = "example.org";
IPAddressMask const network("192.0.2.0/24");

class DynamicExemptCacheTest : public testing::Test {
  protected:
    void add() { m_cache.add(DynamicExemptId(network, domain), Status(1000, expiry, 77)); }
    bool holds(DynamicExemptId const& id) const {
        SharedLock const hold(m_cache.lock);
        return m_cache.lookup(id) != m_cache.end();
    }
    Status record() const {
        SharedLock const hold(m_cache.lock);
        auto const found = m_cache.lookup(DynamicExemptId(network, domain));
        return found == m_cache.end() ? Status(-1, -1, -1) : found->second;
    }

    CapturingLogger m_log;
    InstalledConfiguration m_configuration{3};
    _DynamicExemptCache m_cache;
};

TEST(DynamicExemptCacheDeathTest, WithoutAConfigurationNoneIsMadeAndTheNextCallTriesAgain) {
    expectInOwnProcess([] {
        CapturingLogger log;
        for (int attempt = 0; attempt < 2; ++attempt) {
            try {
                DynamicExemptCache::instance();
                ADD_FAILURE() << "made";
            } catch (Exception const& refused) {
                EXPECT_EQ(refused.where(), "operator->");
                EXPECT_EQ(refused.line(), 359U);
            }
        }
        InstalledConfiguration const configuration(17);
        DynamicExemptCache* const made = DynamicExemptCache::instance();
        EXPECT_EQ((*made)->maxSize(), 17U) << "all records, not their quarter";
        EXPECT_EQ(DynamicExemptCache::instance(false), made);
        EXPECT_TRUE(log.lines().empty()) << "this cache logs nothing";
    });
}

TEST_F(DynamicExemptCacheTest, LogsNothing) {
    EXPECT_TRUE(m_log.lines().empty());
    EXPECT_EQ(m_cache.maxSize(), 3U);
}

TEST_F(DynamicExemptCacheTest, UnknownPairIsNotExemptAndNotAdded) {
    EXPECT_EQ(m_cache.exempt(network, domain, expiry), 0);
    EXPECT_FALSE(holds(DynamicExemptId(network, domain)));
}

TEST_F(DynamicExemptCacheTest, OneSecondBeforeItsExpiryItIsExemptAndLivesOn) {
    add();
    EXPECT_EQ(m_cache.exempt(network, domain, expiry - 1), 1);
    EXPECT_EQ(long(record().expiry), expiry - 1 + life);
    EXPECT_EQ(record().firstSeen, 1000);
    EXPECT_EQ(record().initialLifetime, 77);
}

TEST_F(DynamicExemptCacheTest, AtExactlyItsExpiryItIsDeadAndGone) {
    add();
    EXPECT_EQ(m_cache.exempt(network, domain, expiry), 0);
    EXPECT_FALSE(holds(DynamicExemptId(network, domain)));
    EXPECT_EQ(m_cache.exempt(network, domain, expiry - 1), 0) << "for good";
}

TEST_F(DynamicExemptCacheTest, EachUseExtendsItsLifeByTheDaysOfToday) {
    add();
    m_configuration->days = 1;
    EXPECT_EQ(m_cache.exempt(network, domain, expiry - 1), 1);
    EXPECT_EQ(m_cache.exempt(network, domain, expiry - 1 + 86399), 1);
    EXPECT_EQ(m_cache.exempt(network, domain, expiry - 1 + 86399 + 86400), 0);
}

TEST_F(DynamicExemptCacheTest, OnlyTheVeryNetworkAndDomainAreExempt) {
    add();
    EXPECT_EQ(m_cache.exempt(IPAddressMask("192.0.2.0/25"), domain, 5), 0);
    EXPECT_EQ(m_cache.exempt(IPAddressMask("198.51.100.0/24"), domain, 5), 0);
    EXPECT_EQ(m_cache.exempt(network, "Example.org", 5), 0) << "letter case counts";
    EXPECT_EQ(m_cache.exempt(network, "www.example.org", 5), 0);
    EXPECT_EQ(m_cache.exempt(network, "", 5), 0);
    EXPECT_EQ(m_cache.exempt(network, domain, 5), 1);
}

TEST_F(DynamicExemptCacheTest, UseDoesNotProtectFromEviction) {
    for (unsigned int n = 0; n < 3; ++n) {
        m_cache.add(exemption(n), Status(0, expiry, 0));
    }
    EXPECT_EQ(m_cache.exempt(exemption(0)->mask(), exemption(0)->domain(), 5), 1);
    m_cache.add(exemption(3), Status(0, expiry, 0));
    EXPECT_FALSE(holds(exemption(0)));
    EXPECT_TRUE(holds(exemption(1)));
    m_cache.find(exemption(1));
    m_cache.add(exemption(4), Status(0, expiry, 0));
    EXPECT_TRUE(holds(exemption(1))) << "a find does";
    EXPECT_FALSE(holds(exemption(2)));
}

TEST_F(DynamicExemptCacheTest, NegativeRecordsMakeACacheThatStaysEmpty) {
    InstalledConfiguration const configuration(-1);
    _DynamicExemptCache cache;
    cache.add(exemption(1), Status(0, expiry, 0));
    EXPECT_EQ(cache.maxSize(), 0U);
    EXPECT_EQ(cache.exempt(exemption(1)->mask(), exemption(1)->domain(), 5), 0);
}

} // namespace
} // namespace Vellum::GreyList
