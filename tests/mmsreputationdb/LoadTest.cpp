// From the tables into a cache.
#include "tests/support/EndpointTables.h"

#include "tests/support/FakeDatabaseDaemon.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ctime>

namespace Vellum::MMSReputation {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr char const* entriesSql = "select mms_reputation.msisdn, Period, Spam, Infected, Expiry from mms_reputation,"
                                   "mms_reputation_expiry where (mms_reputation.msisdn = mms_reputation_expiry.msisdn "
                                   ")";
constexpr char const* inTheYear2037 = "2114377200";
constexpr long now = 1800000000; // the first second of a slice
static_assert(now % 120 == 0);

class EndpointLoad : public EndpointTables {
  protected:
    void expectReadFailed(std::string const& part) const {
        auto const records = m_log.records(0x300017D);
        ASSERT_EQ(records.size(), 1U);
        EXPECT_EQ(records[0].format, "%s\x01%d\x01%s");
        ASSERT_EQ(records[0].fields.size(), 3U);
        EXPECT_EQ(records[0].fields[0], "MMSReputationDatabase");
        EXPECT_EQ(records[0].fields[1], "506");
        EXPECT_THAT(records[0].fields[2], HasSubstr(part));
    }
    // What a load at `time` holds of rows that lie so many slices from the one of then, all with that expiry.
    std::vector<std::int64_t> slicesLoadedAt(long time, std::vector<std::int64_t> const& away, long expiry) {
        auto const slice = static_cast<std::int64_t>(Period(time, 30, 15).index);
        run({"delete from mms_reputation", "delete from mms_reputation_expiry",
             "insert into mms_reputation_expiry values ('1', " + std::to_string(expiry) + ")"});
        for (std::int64_t const distance : away) {
            run({"insert into mms_reputation values " +
                 values("1", static_cast<std::uint32_t>(slice + distance), "1, 0")});
        }
        RefCache target(true);
        Database(address()).read(target, Select::entries, time);
        m_cache = target;
        RefEntry const entry = target->entry(MSISDN("1"), 0, false);
        std::vector<std::int64_t> loaded;
        if (!entry.isNull()) {
            for (std::uint32_t const held : slicesOf(*entry)) {
                loaded.push_back(static_cast<std::int64_t>(held) - slice);
            }
        }
        return loaded;
    }

    // A slice that is scored for the length of this test, whatever the clock does.
    std::uint32_t const m_slice = currentSlice();
    std::string slice(std::uint32_t back) const { return std::to_string(m_slice - back); }
};

TEST_F(EndpointLoad, ReadsEntriesThenTheExemptListThenTheBlacklist) {
    run({"insert into mms_reputation values " + values("1", m_slice - 1, "3, 4") + "," + values("1", m_slice, "5, 0") +
             "," + values("2", m_slice, "0, 7"),
         "insert into mms_reputation_expiry values ('1', 0), ('2', 1234567890)",
         "insert into mms_exempt values ('12'), ('11')", "insert into mms_blacklist values ('21'), ('+22')"});
    Database database(address());
    EXPECT_THAT(sent([&] { m_cache = RefCache::instance(&database, 255); }),
                ElementsAre(entriesSql, "select * from mms_exempt", "select * from mms_blacklist"));
    EXPECT_THAT(held(),
                ElementsAre("1 0 " + slice(1) + ":3:4 " + slice(0) + ":5:0", "2 1234567890 " + slice(0) + ":0:7"));
    EXPECT_THAT(exemptHeld(), ElementsAre("11", "12"));
    EXPECT_THAT(blacklistHeld(), ElementsAre("+22", "21"));
    EXPECT_EQ(m_cache->whyNotWhole(), "");
    EXPECT_TRUE(LoadReport::last().complete());
    EXPECT_EQ(LoadReport::last().entries.rows, 3U);
    EXPECT_EQ(LoadReport::last().exemptList.rows, 2U);
    EXPECT_EQ(LoadReport::last().blacklist.rows, 2U);
    EXPECT_TRUE(m_log.lines().empty());
}

TEST_F(EndpointLoad, SelectorsReadTheirBitsOnly) {
    Database database(address());
    auto const statements = [&](unsigned int what) {
        return sent([&] {
            RefCache target(true);
            database.read(target, what);
        });
    };
    EXPECT_THAT(statements(1), ElementsAre("select * from mms_exempt"));
    EXPECT_THAT(statements(2), ElementsAre("select * from mms_blacklist"));
    EXPECT_THAT(statements(3), ElementsAre("select * from mms_exempt", "select * from mms_blacklist"));
    EXPECT_THAT(statements(4), ElementsAre(entriesSql));
    EXPECT_THAT(statements(8), IsEmpty());
    EXPECT_THAT(statements(0), IsEmpty());
}

TEST_F(EndpointLoad, SelectorThreeLoadsNoEntries) {
    run({"insert into mms_reputation values " + values("1", m_slice, "3, 4"),
         "insert into mms_reputation_expiry values ('1', 0)", "insert into mms_exempt values ('11')",
         "insert into mms_blacklist values ('21')"});
    add(5);
    load(3);
    EXPECT_THAT(held(), ElementsAre("15555550005 0"));
    EXPECT_THAT(exemptHeld(), ElementsAre("11"));
    EXPECT_THAT(blacklistHeld(), ElementsAre("21"));
    EXPECT_EQ(m_cache->whyNotWhole(), "") << "the entries are those from before";
    EXPECT_FALSE(LoadReport::last().entries.attempted);
}

TEST_F(EndpointLoad, OldAndNotBlacklistedRowsAreSkipped) {
    std::uint32_t const old = m_slice - 20; // two slices more may pass while the test runs, and do no harm
    run({"insert into mms_reputation values " + values("1", old, "1, 1") + "," + values("2", old, "2, 2") + "," +
             values("2", m_slice, "3, 3") + "," + values("3", old, "4, 4"),
         "insert into mms_reputation_expiry values ('1', 1234567890), ('2', 0), ('3', " + std::string(inTheYear2037) +
             ")"});
    load();
    EXPECT_THAT(held(),
                ElementsAre("2 0 " + slice(0) + ":3:3", "3 " + std::string(inTheYear2037) + " " + slice(20) + ":4:4"))
        << "a blacklisted subscriber keeps his old records";
}

TEST_F(EndpointLoad, SliceFourteenBackIsLoadedAndFifteenBackIsNot) {
    for (long const at : {now, now + 119}) { // from the first second of the slice to its last
        EXPECT_THAT(slicesLoadedAt(at, {-16, -15, -14, 0}, 0), ElementsAre(-14, 0));
    }
    EXPECT_THAT(slicesLoadedAt(now + 120, {-16, -15, -14, 0}, now), ElementsAre(-14, 0)) << "of the next slice";
}

TEST_F(EndpointLoad, SliceFifteenAheadIsLoadedAndSixteenAheadIsNot) {
    EXPECT_THAT(slicesLoadedAt(now, {0, 14, 15, 16}, 0), ElementsAre(0, 14, 15));
    ASSERT_EQ(m_log.lines().size(), 1U);
    EXPECT_EQ(m_log.lines()[0].text,
              "1 rows of mms_reputation skipped: their slices lie ahead, they were counted in another window");
}

TEST_F(EndpointLoad, OldRowsAreLoadedUntilTheirExpiryIsNow) {
    EXPECT_THAT(slicesLoadedAt(now, {-15}, now - 1), IsEmpty());
    EXPECT_THAT(slicesLoadedAt(now, {-15}, now), IsEmpty());
    EXPECT_THAT(held(), IsEmpty());
    EXPECT_THAT(slicesLoadedAt(now, {-100, -15}, now + 1), ElementsAre(-100, -15));
    EXPECT_THAT(held().size(), 1U);
    EXPECT_EQ(m_cache->entry(MSISDN("1"), 0, false)->blacklistExpiry(), now + 1);
}

TEST_F(EndpointLoad, SliceTooFarAheadIsNotLoadedWhateverTheExpiry) {
    EXPECT_THAT(slicesLoadedAt(now, {16}, now), IsEmpty());
    EXPECT_THAT(held(), IsEmpty());
    EXPECT_THAT(slicesLoadedAt(now, {16}, now + 1), IsEmpty());
    EXPECT_THAT(held(), ElementsAre("1 " + std::to_string(now + 1))) << "he is blacklisted all the same";
}

TEST_F(EndpointLoad, SubscriberWithoutAnExpiryRowIsNotLoaded) {
    run({"insert into mms_reputation values " + values("1", m_slice, "3, 4"),
         "insert into mms_reputation_expiry values ('2', 0)"});
    load();
    EXPECT_THAT(held(), IsEmpty());
    EXPECT_TRUE(LoadReport::last().complete());
}

TEST_F(EndpointLoad, MoreThanFifteenSlicesAreKept) {
    std::string sql = "insert into mms_reputation values ";
    for (std::uint32_t back = 0; back < 20; ++back) {
        sql += (back == 0 ? "" : ",") + values("1", m_slice - back, "1, 0");
    }
    run({sql, "insert into mms_reputation_expiry values ('1', " + std::string(inTheYear2037) + ")"});
    load();
    EXPECT_EQ(slicesOf(*m_cache->entry(MSISDN("1"), 0, false)).size(), 20U);
}

TEST_F(EndpointLoad, SlicesOfAnotherWindowAreDropped) {
    run({"insert into mms_reputation values " + values("1", m_slice, "1, 0") + "," + values("2", m_slice, "2, 0"),
         "insert into mms_reputation_expiry values ('1', 0), ('2', " + std::string(inTheYear2037) + ")"});
    m_configuration->window = 60; // four minutes: the slices above now lie decades ahead
    load();
    EXPECT_THAT(held(), ElementsAre("2 " + std::string(inTheYear2037)));
    ASSERT_EQ(m_log.lines().size(), 1U);
    EXPECT_EQ(m_log.lines()[0].code, 0x3000166U);
    EXPECT_EQ(m_log.lines()[0].text,
              "2 rows of mms_reputation skipped: their slices lie ahead, they were counted in another window");
    m_log.clear();
    m_configuration->window = 15; // one minute: they are long past
    load();
    EXPECT_THAT(held(), ElementsAre("2 " + std::string(inTheYear2037) + " " + slice(0) + ":2:0"));
    EXPECT_EQ(m_cache->entry(MSISDN("2"), 0, false)->score(Period(0, 0, 15).index, true), 0U);
}

TEST_F(EndpointLoad, ClockThatWasSetBackALittleCostsNothing) {
    run({"insert into mms_reputation values " + values("1", m_slice + 15, "1, 0") + "," +
             values("2", m_slice + 100, "2, 0"),
         "insert into mms_reputation_expiry values ('1', 0), ('2', 0)"});
    load();
    EXPECT_THAT(held(), ElementsAre("1 0 " + std::to_string(m_slice + 15) + ":1:0"));
}

TEST_F(EndpointLoad, NumberThatIsNoneIsSkippedAndLogged) {
    run({"insert into mms_reputation values " + values("1", m_slice, "1, 0") + "," + values("x\\'y", m_slice, "2, 0"),
         "insert into mms_reputation_expiry values ('1', 0), ('x\\'y', 0)",
         "insert into mms_exempt values ('11'), ('1 2'), ('13')",
         "insert into mms_blacklist values ('21'), ('22x'), ('\\t')"});
    load();
    EXPECT_THAT(held(), ElementsAre("1 0 " + slice(0) + ":1:0"));
    EXPECT_THAT(exemptHeld(), ElementsAre("11", "13"));
    EXPECT_THAT(blacklistHeld(), ElementsAre("21"));
    Rows texts;
    for (auto const& record : m_log.lines()) {
        EXPECT_EQ(record.code, 0x3000166U);
        EXPECT_EQ(record.format, "%s");
        texts.push_back(record.text);
    }
    EXPECT_THAT(texts, ElementsAre("row of mms_reputation skipped: \"x'y\" is no subscriber number, expected digits",
                                   "row of mms_exempt skipped: \"1 2\" is no subscriber number, expected digits",
                                   "row of mms_blacklist skipped: \"\\t\" is no subscriber number, expected digits",
                                   "row of mms_blacklist skipped: \"22x\" is no subscriber number, expected digits"));
    EXPECT_TRUE(LoadReport::last().complete());
}

TEST_F(EndpointLoad, FloodOfBadNumbersIsLoggedAsASum) {
    std::string sql = "insert into mms_exempt values ('1')";
    for (int n = 0; n < 25; ++n) {
        sql += ",('x" + std::to_string(n) + "')";
    }
    run({sql});
    load();
    EXPECT_THAT(exemptHeld(), ElementsAre("1"));
    EXPECT_EQ(m_log.lines().size(), 21U);
    EXPECT_EQ(m_log.lines().back().text, "5 more rows of mms_exempt hold no subscriber number");
}

TEST_F(EndpointLoad, NumberOf36CharactersComesBackWhole) {
    std::string const longest(36, '7');
    run({"insert into mms_blacklist values ('" + longest + "')"});
    load();
    EXPECT_TRUE(m_cache->isBlacklisted(MSISDN(longest)));
}

TEST_F(EndpointLoad, EmptyColumnEndsTheLoadAndTheCacheIsNotWrittenOverTheTables) {
    run({"insert into mms_reputation values " + values("1", m_slice, "1, 0") + "," + values("", m_slice, "2, 0"),
         "insert into mms_reputation_expiry values ('1', 0), ('', 0)", "insert into mms_blacklist values ('21')"});
    load();
    expectReadFailed("EntryRow (code 4, MMSReputationDatabase:72): Invalid EndpointReputation Entry");
    EXPECT_THAT(blacklistHeld(), IsEmpty()) << "the lists come after the entries";
    EXPECT_THAT(m_cache->whyNotWhole(), HasSubstr("Invalid EndpointReputation Entry"));
    EXPECT_FALSE(LoadReport::last().entries.loaded);
    EXPECT_FALSE(LoadReport::last().complete());
    EXPECT_THAT(LoadReport::last().blacklist.problem, HasSubstr("Invalid EndpointReputation Entry"));
    FakeDatabaseDaemon const daemon;
    EXPECT_FALSE(Database::write(scriptPath()));
    EXPECT_THAT(daemon.requests(), IsEmpty());
    run({"delete from mms_reputation where msisdn = ''"});
    load();
    EXPECT_EQ(m_cache->whyNotWhole(), "");
    EXPECT_TRUE(LoadReport::last().complete());
    EXPECT_TRUE(Database::write(scriptPath()));
}

TEST_F(EndpointLoad, EmptyNumberInAListEndsTheLoadAndEntriesStay) {
    run({"insert into mms_reputation values " + values("1", m_slice, "1, 0"),
         "insert into mms_reputation_expiry values ('1', 0)", "insert into mms_exempt values ('11'), ('')",
         "insert into mms_blacklist values ('21')"});
    load();
    expectReadFailed("EntryRow (code 4, MMSReputationDatabase:117): Invalid MSISDN Entry; row 1 of mms_exempt");
    EXPECT_EQ(held().size(), 1U);
    EXPECT_EQ(m_cache->whyNotWhole(), "") << "a backup writes entries only";
    EXPECT_TRUE(LoadReport::last().entries.loaded);
    EXPECT_FALSE(LoadReport::last().exemptList.loaded);
    EXPECT_FALSE(LoadReport::last().blacklist.loaded);
}

TEST_F(EndpointLoad, RowsBeforeARefusedOneAreLoaded) {
    run({"alter table mms_blacklist drop primary key",
         "insert into mms_blacklist values ('21'), ('22'), (''), ('23')"});
    load();
    EXPECT_THAT(blacklistHeld(), ElementsAre("21", "22"));
    EXPECT_FALSE(LoadReport::last().blacklist.loaded);
}

TEST_F(EndpointLoad, MissingTableEndsTheLoad) {
    run({"insert into mms_reputation values " + values("1", m_slice, "1, 0"),
         "insert into mms_reputation_expiry values ('1', 0)", "drop table mms_exempt"});
    load();
    expectReadFailed("mms_exempt");
    EXPECT_EQ(held().size(), 1U);
    EXPECT_EQ(m_cache->whyNotWhole(), "");
}

TEST_F(EndpointLoad, ReloadThatDoesNotAskForEntriesLeavesACacheThatIsNotWritten) {
    run({"insert into mms_reputation values " + values("1", m_slice, "1, 0"),
         "insert into mms_reputation_expiry values ('1', 0)"});
    load();
    EXPECT_TRUE(LoadReport::last().complete());
    for (unsigned int const what : {0U, 8U, 16U}) {
        load(what);
        EXPECT_EQ(m_cache->whyNotWhole(), "it was loaded without entries");
        EXPECT_FALSE(LoadReport::last().complete());
        EXPECT_EQ(LoadReport::last().entries.problem, "a reload replaced the cache without asking for it");
        FakeDatabaseDaemon const daemon;
        EXPECT_FALSE(Database::write(scriptPath()));
    }
    load(4);
    EXPECT_EQ(m_cache->whyNotWhole(), "");
    EXPECT_FALSE(LoadReport::last().complete()) << "the lists are empty now";
    load(1);
    load(2);
    EXPECT_TRUE(LoadReport::last().complete());
}

TEST_F(EndpointLoad, WithoutConfigurationTheEntriesCannotBeJudged) {
    NoConfiguration const none;
    load();
    expectReadFailed("Reputation::Configuration is null");
    EXPECT_NE(m_cache->whyNotWhole(), "");
}

TEST_F(EndpointLoad, TenThousandSubscribersAreTheMost) {
    std::string records = "insert into mms_reputation values ";
    std::string expiries = "insert into mms_reputation_expiry values ";
    for (unsigned int n = 0; n < 10003; ++n) {
        std::string const number = subscriber(n).asString();
        records += (n == 0 ? "" : ",") + values(number, m_slice, "1, 0");
        expiries += (n == 0 ? "('" : ",('") + number + "', 0)";
    }
    run({records, expiries});
    load();
    EXPECT_EQ(sizeOf(*m_cache), 10000U);
}

} // namespace
} // namespace Vellum::MMSReputation
