// The score table as tools see it.
#include "mmsreputation/MMSReputationDisplay.h"
#include "tests/support/EndpointTables.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Vellum::MMSReputation {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

std::vector<std::string> shown;
std::size_t stopAfter = 0; // 0: never

int take(mms_reputation_display_packet const* packet) {
    shown.push_back(std::string(packet->msisdn) + ' ' + std::to_string(packet->score) + ' ' +
                    std::to_string(packet->expiry));
    return shown.size() == stopAfter ? 1 : 0;
}

class EndpointScoreList : public EndpointTables {
  protected:
    EndpointScoreList() {
        run({"insert into mms_repuation_score values ('12', 30, 100), ('11', 20, 300), ('+13', 10, 200), ('14', 40, "
             "-1)"});
    }
    Rows show(int sortBy, int limit, std::size_t most = 0) {
        shown.clear();
        stopAfter = most;
        m_sent = sent([&] { Database(address()).showMMSReputationScore(take, sortBy, limit); }).back();
        return shown;
    }

    std::string m_sent;
};

TEST_F(EndpointScoreList, SortsByScore) {
    EXPECT_THAT(show(1, 0), ElementsAre("+13 10 200", "11 20 300", "12 30 100", "14 40 -1"));
    EXPECT_EQ(m_sent, "SELECT * FROM mms_repuation_score ORDER BY score");
}

TEST_F(EndpointScoreList, SortsByExpiryWithoutALimit) {
    EXPECT_THAT(show(2, 0), ElementsAre("14 40 -1", "12 30 100", "+13 10 200", "11 20 300"));
    EXPECT_EQ(m_sent, "SELECT * FROM mms_repuation_score ORDER BY expiry");
    EXPECT_EQ(show(2, -5).size(), 4U);
}

TEST_F(EndpointScoreList, SortsByNumberOtherwise) {
    for (int const sortBy : {0, 3, -1}) {
        EXPECT_THAT(show(sortBy, 0), ElementsAre("+13 10 200", "11 20 300", "12 30 100", "14 40 -1"));
        EXPECT_EQ(m_sent, "SELECT * FROM mms_repuation_score ORDER BY msisdn");
    }
}

TEST_F(EndpointScoreList, LimitIsTheMost) {
    EXPECT_THAT(show(1, 2), ElementsAre("+13 10 200", "11 20 300"));
    EXPECT_EQ(m_sent, "SELECT * FROM mms_repuation_score ORDER BY score  LIMIT 2");
    EXPECT_EQ(show(1, 4).size(), 4U);
    EXPECT_EQ(show(1, 5).size(), 4U);
}

TEST_F(EndpointScoreList, ResultOtherThanZeroEndsIt) {
    EXPECT_THAT(show(1, 0, 1), ElementsAre("+13 10 200"));
    EXPECT_THAT(show(1, 0, 2), ElementsAre("+13 10 200", "11 20 300"));
}

TEST_F(EndpointScoreList, NumberIsCutInThePacket) {
    run({"delete from mms_repuation_score",
         "insert into mms_repuation_score values ('" + std::string(36, '5') + "', 1, 2)"});
    EXPECT_THAT(show(1, 0), ElementsAre(std::string(35, '5') + " 1 2"));
}

TEST_F(EndpointScoreList, RowThatIsNoNumberIsSkippedAndAnEmptyOneEndsIt) {
    run({"insert into mms_repuation_score values ('x', 50, 0)"});
    EXPECT_EQ(show(1, 0).size(), 4U);
    ASSERT_EQ(m_log.lines().size(), 1U);
    EXPECT_EQ(m_log.lines()[0].code, 0x3000166U);
    m_log.clear();
    run({"insert into mms_repuation_score values ('', 25, 0)"});
    EXPECT_THAT(show(1, 0), ElementsAre("+13 10 200", "11 20 300")) << "what came before it";
    auto const records = m_log.lines();
    ASSERT_EQ(records.size(), 1U);
    EXPECT_EQ(records[0].code, 0x300017EU);
    EXPECT_EQ(records[0].format, "%s\x01%d\x01%s");
    ASSERT_EQ(records[0].fields.size(), 3U);
    EXPECT_EQ(records[0].fields[0], "MMSReputationDatabase");
    EXPECT_EQ(records[0].fields[1], "557");
    EXPECT_THAT(records[0].fields[2],
                HasSubstr("EntryRow (code 4, MMSReputationDatabase:165): Invalid EndpointReputationScore Entry"));
}

TEST_F(EndpointScoreList, MissingTableIsLoggedAndShowsNobody) {
    Database database(address());
    run({"drop table mms_repuation_score"});
    shown.clear();
    database.showMMSReputationScore(take, 1, 0);
    EXPECT_THAT(shown, IsEmpty());
    EXPECT_EQ(m_log.records(0x300017E).size(), 1U);
}

} // namespace
} // namespace Vellum::MMSReputation
