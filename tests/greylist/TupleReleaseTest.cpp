#include "greylist/DynamicExemptCache.h"
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

class TupleReleaseTest : public testing::Test {
  protected:
    TupleParts parts() const { return m_id->parts(); }
    Status record() const {
        SharedLock const hold(m_cache.lock);
        auto const found = m_cache.lookup(m_id);
        return found == m_cache.end() ? Status(-1, -1, -1) : found->second;
    }
    void expectRecord(long firstSeen, long expiry, long initialLifetime) const {
        Status const status = record();
        EXPECT_EQ(status.firstSeen, firstSeen);
        EXPECT_EQ(long(status.expiry), expiry);
        EXPECT_EQ(status.initialLifetime, initialLifetime);
    }
    // Asks for a preview, which must change nothing, and compares it with the decision that is then made.
    void expectSameDecision(long now) {
        Status const before = record();
        TupleDecision const preview = m_cache.preview(parts(), now);
        expectRecord(before.firstSeen, before.expiry, before.initialLifetime);
        TupleDecision const decision = m_cache.decide(m_id, now);
        EXPECT_EQ(preview.situation, decision.situation);
        EXPECT_EQ(preview.firstPass, decision.firstPass);
        EXPECT_EQ(preview.firstSeen, decision.firstSeen);
        EXPECT_EQ(preview.passTime, decision.passTime);
        EXPECT_EQ(preview.expiry, decision.expiry);
    }

    CapturingLogger m_log;
    InstalledConfiguration m_configuration;
    _TupleCache m_cache;
    TupleId const m_id = tuple("192.0.2.0/24", "sender@example.net", "recipient@example.org");
};

TEST_F(TupleReleaseTest, PreviewTellsWhatTheDecisionWouldBeAndChangesNothing) {
    expectSameDecision(start);                    // new
    expectSameDecision(start + delay - 1);        // early
    expectSameDecision(start + delay);            // passes for the first time
    expectSameDecision(start + delay + 1);        // known
    expectSameDecision(start + delay + 1 + life); // at exactly its expiry
    expectSameDecision(start + delay + 2 + life + life);
}

TEST_F(TupleReleaseTest, WaitingTuplePassesAtOnceAndAsIfItHadWaited) {
    m_cache.state(m_id, start);
    EXPECT_TRUE(m_cache.release(parts(), start + 10));
    expectRecord(start + 10 - delay, start + 10 - delay + firstLife, firstLife);
    TupleDecision const decision = m_cache.decide(m_id, start + 10);
    EXPECT_EQ(decision.situation, Situation::passes);
    EXPECT_TRUE(decision.firstPass);
}

TEST_F(TupleReleaseTest, UnknownTupleIsMadeKnown) {
    EXPECT_TRUE(m_cache.release(parts(), start));
    EXPECT_EQ(m_cache.state(m_id, start), 1);
}

TEST_F(TupleReleaseTest, DeadTupleIsReleasedLikeAnUnknownOne) {
    m_cache.state(m_id, start);
    long const late = start + firstLife + 1;
    EXPECT_TRUE(m_cache.release(parts(), late));
    EXPECT_EQ(m_cache.state(m_id, late), 1);
}

TEST_F(TupleReleaseTest, TupleThatPassesIsLeftAsItIs) {
    m_cache.state(m_id, start);
    EXPECT_FALSE(m_cache.release(parts(), start + delay)) << "it may pass from exactly then";
    expectRecord(start, start + firstLife, firstLife);
    m_cache.state(m_id, start + delay);
    EXPECT_FALSE(m_cache.release(parts(), start + delay + 1));
    expectRecord(start, start + delay + life, firstLife);
}

TEST_F(TupleReleaseTest, ReleaseIsForgottenLikeAnyFirstSight) {
    m_cache.release(parts(), start);
    EXPECT_EQ(m_cache.state(m_id, start - delay + firstLife + 1), 0);
}

TEST(DynamicExemptPreview, TellsTheEndAndChangesNothing) {
    InstalledConfiguration const configuration;
    _DynamicExemptCache cache;
    DynamicExemptId const pair = exemption("192.0.2.0/24", "example.net");
    DynamicExemptParts const parts{pair->mask(), pair->domain()};
    EXPECT_EQ(cache.exemptUntil(parts, start), 0);
    cache.add(pair, Status(start, start + 100, 0));
    EXPECT_EQ(cache.exemptUntil(parts, start + 99), start + 100);
    EXPECT_EQ(cache.exemptUntil(parts, start + 100), 0) << "dead at exactly its expiry";
    EXPECT_EQ(cache.exemptUntil(parts, start + 99), start + 100) << "and still there";
}

} // namespace
} // namespace Vellum::GreyList
