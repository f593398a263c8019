#include "daemon/DatabaseWatch.h"

#include "tests/support/GreylistTables.h"
#include "tests/support/UnreachableServer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>

namespace Vellum::Daemon {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

class DatabaseWatchTest : public GreyList::GreylistTables {
  protected:
    DatabaseWatchTest() { m_log.clear(); }
    DatabaseWatch m_watch;
};

TEST_F(DatabaseWatchTest, BeforeTheFirstLookNothingIsKnown) {
    EXPECT_EQ(m_watch.state().reachable, std::nullopt);
    EXPECT_EQ(m_watch.state().asOf, 0);
    EXPECT_EQ(m_watch.state().problem, "");
}

TEST_F(DatabaseWatchTest, AServerThatAnswersIsNotSpokenOf) {
    m_watch.look(100);
    m_watch.look(160);
    EXPECT_EQ(m_watch.state().reachable, true);
    EXPECT_EQ(m_watch.state().asOf, 160);
    EXPECT_EQ(m_watch.state().problem, "");
    EXPECT_THAT(m_log.notes(), IsEmpty());
}

TEST_F(DatabaseWatchTest, TroubleIsSaidOnceAndItsEndOnce) {
    m_watch.look(100);
    {
        UnreachableServer const away;
        for (long const now : {160, 220, 280}) {
            m_watch.look(now);
            EXPECT_EQ(m_watch.state().reachable, false);
            EXPECT_EQ(m_watch.state().asOf, now);
            EXPECT_THAT(m_watch.state().problem, HasSubstr("Can't connect"));
        }
        ASSERT_THAT(m_log.notes(),
                    ElementsAre(StartsWith("the database does not answer; decisions go on from memory: ")));
        EXPECT_EQ(m_log.lines().back().severity, Logger::Severity::error);
    }
    for (long const now : {340, 400}) {
        m_watch.look(now);
        EXPECT_EQ(m_watch.state().reachable, true);
        EXPECT_EQ(m_watch.state().problem, "");
    }
    ASSERT_EQ(m_log.notes().size(), 2U);
    EXPECT_EQ(m_log.notes().back(), "the database answers again");
    EXPECT_EQ(m_log.lines().back().severity, Logger::Severity::warning);
    UnreachableServer const again;
    m_watch.look(460);
    EXPECT_EQ(m_log.notes().size(), 3U) << "new trouble is said again";
}

TEST_F(DatabaseWatchTest, AServerThatIsAwayFromTheFirstLookOnIsSaid) {
    UnreachableServer const away;
    m_watch.look(100);
    m_watch.look(160);
    EXPECT_EQ(m_log.notes().size(), 1U);
}

} // namespace
} // namespace Vellum::Daemon
