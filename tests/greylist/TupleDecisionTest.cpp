#include "greylist/TupleCache.h"

#include "tests/support/CapturingLogger.h"
#include "tests/support/GreylistConfiguration.h"
#include "tests/support/GreylistIdentities.h"

#include <gtest/gtest.h>

namespace Vellum::GreyList {
namespace {

using Situation = TupleDecision::Situation;

constexpr long start = 1700000000;
constexpr long delay = 5 * 60L;
constexpr long firstLife = 4 * 3600L;
constexpr long life = 36 * 86400L;

class TupleDecisionTest : public testing::Test {
  protected:
    Status record(TupleId const& id) const {
        SharedLock const hold(m_cache.lock);
        auto const found = m_cache.lookup(id);
        return found == m_cache.end() ? Status(-1, -1, -1) : found->second;
    }
    void expectRecord(long firstSeen, long expiry, long initialLifetime) const {
        Status const status = record(m_id);
        EXPECT_EQ(status.firstSeen, firstSeen);
        EXPECT_EQ(long(status.expiry), expiry);
        EXPECT_EQ(status.initialLifetime, initialLifetime);
    }
    // The record as it is after loading: without its first lifetime.
    void load(long firstSeen, long expiry) { m_cache.add(m_id, Status(firstSeen, expiry, 0)); }

    CapturingLogger m_log;
    InstalledConfiguration m_configuration;
    _TupleCache m_cache;
    TupleId const m_id = tuple("192.0.2.0/24", "sender@example.net", "recipient@example.org");
};

TEST_F(TupleDecisionTest, NewTupleIsDeferredAndLivesItsFirstHours) {
    EXPECT_EQ(m_cache.state(m_id, start), 0);
    expectRecord(start, start + firstLife, firstLife);
}

TEST_F(TupleDecisionTest, RetryOneSecondBeforeTheDelayIsDeferredAndChangesNothing) {
    m_cache.state(m_id, start);
    EXPECT_EQ(m_cache.state(m_id, start + delay - 1), 0);
    expectRecord(start, start + firstLife, firstLife);
}

TEST_F(TupleDecisionTest, RetryAtExactlyTheDelayPasses) {
    m_cache.state(m_id, start);
    EXPECT_EQ(m_cache.state(m_id, start + delay), 1);
    expectRecord(start, start + delay + life, firstLife);
    EXPECT_EQ(m_cache.state(m_id, start + delay + 1), 1);
    expectRecord(start, start + delay + 1 + life, firstLife);
}

TEST_F(TupleDecisionTest, WaitingTupleStillLivesAtExactlyItsExpiry) {
    m_cache.state(m_id, start);
    EXPECT_EQ(m_cache.state(m_id, start + firstLife), 1);
    expectRecord(start, start + firstLife + life, firstLife);
}

TEST_F(TupleDecisionTest, WaitingTupleStartsAgainOneSecondAfterItsExpiry) {
    m_cache.state(m_id, start);
    long const late = start + firstLife + 1;
    EXPECT_EQ(m_cache.state(m_id, late), 0);
    expectRecord(late, late + firstLife, firstLife);
    EXPECT_EQ(m_cache.state(m_id, late + delay - 1), 0);
    EXPECT_EQ(m_cache.state(m_id, late + delay), 1);
}

TEST_F(TupleDecisionTest, PassedTupleLivesUntilItsExpiryAndStartsAgainAfterIt) {
    m_cache.state(m_id, start);
    m_cache.state(m_id, start + delay);
    long const expiry = start + delay + life;
    EXPECT_EQ(m_cache.state(m_id, expiry), 1);
    EXPECT_EQ(m_cache.state(m_id, expiry + life + 1), 0);
    expectRecord(expiry + life + 1, expiry + life + 1 + firstLife, firstLife);
}

TEST_F(TupleDecisionTest, TupleThatKeepsPassingKeepsItsFirstSeen) {
    m_cache.state(m_id, start);
    for (long now = start + delay; now < start + 20 * life; now += life / 2) {
        ASSERT_EQ(m_cache.state(m_id, now), 1) << now;
        ASSERT_EQ(record(m_id).firstSeen, start);
    }
}

TEST_F(TupleDecisionTest, RetryBeforeItWasFirstSeenIsDeferred) {
    m_cache.state(m_id, start);
    EXPECT_EQ(m_cache.state(m_id, start - 1000), 0) << "a clock that was set back";
    expectRecord(start, start + firstLife, firstLife);
}

TEST_F(TupleDecisionTest, NewConfigurationHoldsForTheNextDecision) {
    m_cache.state(m_id, start);
    m_configuration->minutes = 10;
    EXPECT_EQ(m_cache.state(m_id, start + 599), 0);
    m_configuration->days = 1;
    EXPECT_EQ(m_cache.state(m_id, start + 600), 1);
    expectRecord(start, start + 600 + 86400, firstLife);
    m_configuration->hours = 1;
    long const late = start + 600 + 86400 + 1;
    EXPECT_EQ(m_cache.state(m_id, late), 0);
    expectRecord(late, late + 3600, 3600);

    InstalledConfiguration const another;
    another->minutes = 0;
    EXPECT_EQ(m_cache.state(m_id, late), 1);
}

TEST_F(TupleDecisionTest, WithoutADelayTheSecondAttemptPasses) {
    m_configuration->minutes = 0;
    EXPECT_EQ(m_cache.state(m_id, start), 0);
    EXPECT_EQ(m_cache.state(m_id, start), 1);
}

TEST_F(TupleDecisionTest, FirstLifeShorterThanTheDelayNeverPasses) {
    m_configuration->hours = 0;
    EXPECT_EQ(m_cache.state(m_id, start), 0);
    EXPECT_EQ(m_cache.state(m_id, start), 0) << "alive, and too early";
    EXPECT_EQ(m_cache.state(m_id, start + 1), 0) << "dead";
    expectRecord(start + 1, start + 1, 0);
}

TEST_F(TupleDecisionTest, TellsWhatItFound) {
    TupleDecision const fresh = m_cache.decide(m_id, start);
    EXPECT_EQ(fresh.situation, Situation::fresh);
    EXPECT_FALSE(fresh.passed());
    EXPECT_EQ(fresh.firstSeen, start);
    EXPECT_EQ(fresh.passTime, start + delay);
    EXPECT_EQ(fresh.expiry, start + firstLife);

    TupleDecision const early = m_cache.decide(m_id, start + 1);
    EXPECT_EQ(early.situation, Situation::early);
    EXPECT_FALSE(early.passed());
    EXPECT_EQ(early.firstSeen, start);
    EXPECT_EQ(early.passTime, start + delay);
    EXPECT_EQ(early.expiry, start + firstLife);

    TupleDecision const passing = m_cache.decide(m_id, start + delay);
    EXPECT_EQ(passing.situation, Situation::passes);
    EXPECT_TRUE(passing.passed());
    EXPECT_EQ(passing.firstSeen, start);
    EXPECT_EQ(passing.expiry, start + delay + life);

    long const late = start + delay + life + 1;
    TupleDecision const expired = m_cache.decide(m_id, late);
    EXPECT_EQ(expired.situation, Situation::expired);
    EXPECT_FALSE(expired.passed());
    EXPECT_EQ(expired.firstSeen, late);
    EXPECT_EQ(expired.passTime, late + delay);
    EXPECT_EQ(expired.expiry, late + firstLife);
}

TEST_F(TupleDecisionTest, PartsOfATupleAreDecidedAsItsIdentity) {
    EXPECT_EQ(m_cache.decide(m_id->parts(), start).situation, Situation::fresh);
    expectRecord(start, start + firstLife, firstLife);
    EXPECT_EQ(m_cache.decide(m_id, start + delay - 1).situation, Situation::early);
    EXPECT_EQ(m_cache.decide(m_id->parts(), start + delay - 1).situation, Situation::early);
    EXPECT_TRUE(m_cache.decide(m_id->parts(), start + delay).firstPass);
    EXPECT_EQ(m_cache.decide(m_id, start + delay).situation, Situation::passes);
    expectRecord(start, start + delay + life, firstLife);
}

TEST_F(TupleDecisionTest, PassesForTheFirstTimeOnceInEachPeriod) {
    EXPECT_FALSE(m_cache.decide(m_id, start).firstPass);
    EXPECT_FALSE(m_cache.decide(m_id, start + 1).firstPass);
    EXPECT_TRUE(m_cache.decide(m_id, start + delay).firstPass);
    EXPECT_FALSE(m_cache.decide(m_id, start + delay + 1).firstPass);
    long const late = start + delay + 1 + life + 1;
    EXPECT_FALSE(m_cache.decide(m_id, late).firstPass);
    EXPECT_TRUE(m_cache.decide(m_id, late + firstLife).firstPass);
    EXPECT_FALSE(m_cache.decide(m_id, late + firstLife).firstPass);
}

TEST_F(TupleDecisionTest, FirstPassIsToldByTheLifeThatWasGrantedThen) {
    m_cache.decide(m_id, start);
    m_configuration->hours = 1; // would make the record look like a passed one
    EXPECT_TRUE(m_cache.decide(m_id, start + delay).firstPass);
}

TEST_F(TupleDecisionTest, LoadedWaitingTuplePassesForTheFirstTime) {
    load(start, start + firstLife);
    EXPECT_TRUE(m_cache.decide(m_id, start + delay).firstPass);
    EXPECT_FALSE(m_cache.decide(m_id, start + delay).firstPass);
    expectRecord(start, start + delay + life, 0);
}

TEST_F(TupleDecisionTest, LoadedTupleWithMoreThanAFirstLifeHasPassedBefore) {
    load(start, start + firstLife + 1);
    EXPECT_FALSE(m_cache.decide(m_id, start + delay).firstPass);
}

TEST_F(TupleDecisionTest, LoadedTupleWithoutAnExpiryStartsAgain) {
    load(start, 0);
    EXPECT_EQ(m_cache.state(m_id, start + delay), 0);
    expectRecord(start + delay, start + delay + firstLife, firstLife);
}

TEST(WaitingTuple, IsOneWhoseExpiryIsStillTheFirst) {
    EXPECT_TRUE(isWaiting(Status(1000, 1000 + 7200, 7200), 3600));
    EXPECT_FALSE(isWaiting(Status(1000, 1000 + 7201, 7200), 3600));
    EXPECT_FALSE(isWaiting(Status(1000, 1000 + 7199, 7200), 9999)) << "a pass granted less than the first life";
}

TEST(WaitingTuple, LoadedOneIsJudgedByTheFirstLifeOfToday) {
    EXPECT_TRUE(isWaiting(Status(1000, 1000 + 3600, 0), 3600));
    EXPECT_FALSE(isWaiting(Status(1000, 1000 + 3601, 0), 3600));
    EXPECT_TRUE(isWaiting(Status(1000, 0, 0), 3600)) << "from a table without expiries";
}

} // namespace
} // namespace Vellum::GreyList
