// From the tables into the caches.
#include "tests/support/GreylistTables.h"

#include "tests/support/OwnProcess.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>

namespace Vellum::GreyList {
namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

class LoadTest : public GreylistTables {
  protected:
    LoadTest() {
        m_tuples.add(tuple(0), Status(11, 12, 13));
        m_exemptions.add(exemption(0), Status(14, 15, 16));
    }

    Rows const m_tuplesBefore{"192.0.2.0/24 sender1000000@example.net recipient@example.org 11 12 13"};
    Rows const m_exemptionsBefore{"192.0.2.0/24 d1000000.example 14 15 16"};

    // The one record of a half that failed.
    void expectFailure(int line, std::string const& begin, std::string const& row) const {
        auto const lines = m_log.lines();
        ASSERT_EQ(lines.size(), 1U);
        EXPECT_EQ(lines[0].code, 0x300019EU);
        EXPECT_EQ(lines[0].level, 0);
        EXPECT_EQ(lines[0].format, "%s\x01%d\x01%s");
        ASSERT_EQ(lines[0].fields.size(), 3U);
        EXPECT_EQ(lines[0].fields[0], "GlRecordDatabase");
        EXPECT_EQ(lines[0].fields[1], std::to_string(line));
        EXPECT_THAT(lines[0].fields[2], StartsWith(begin));
        EXPECT_THAT(lines[0].fields[2], HasSubstr(row));
    }
};

TEST_F(LoadTest, BothTablesReplaceWhatTheCachesHeld) {
    run({"insert into grey_list values ('192.0.2.0/24', 'a@b', '<>', 1, 2), ('2001:db8::/64', '<>', 'c@d', -3, 4)",
         "insert into autoexempt values ('192.0.2.0/24', 'A.example', 5, 6)"});
    GlRecordDatabase database(address());
    EXPECT_THAT(sent([&] { database.read(); }), ElementsAre("select * from grey_list", "select * from autoexempt"));
    EXPECT_THAT(tuplesHeld(), ElementsAre("192.0.2.0/24 a@b <> 1 2 0", "2001:db8::/64 <> c@d -3 4 0"));
    EXPECT_THAT(exemptionsHeld(), ElementsAre("192.0.2.0/24 A.example 5 6 0"));
    EXPECT_TRUE(m_log.lines().empty());
}

TEST_F(LoadTest, EmptyTablesEmptyTheCaches) {
    read();
    EXPECT_THAT(tuplesHeld(), IsEmpty());
    EXPECT_THAT(exemptionsHeld(), IsEmpty());
    EXPECT_TRUE(LoadReport::last().complete());
}

TEST_F(LoadTest, ReportTellsRowsAndSuccess) {
    EXPECT_FALSE(LoadReport::last().complete());
    run({"insert into grey_list values ('192.0.2.0/24', 'a@b', 'c@d', 1, 2), ('192.0.2.0/24', 'b@b', 'c@d', 1, 2)",
         "insert into autoexempt values ('192.0.2.0/24', 'd', 5, 6)"});
    read();
    LoadReport const report = LoadReport::last();
    EXPECT_TRUE(report.tuples.attempted);
    EXPECT_TRUE(report.tuples.loaded);
    EXPECT_EQ(report.tuples.rows, 2U);
    EXPECT_EQ(report.tuples.problem, "");
    EXPECT_TRUE(report.exemptions.loaded);
    EXPECT_EQ(report.exemptions.rows, 1U);
    EXPECT_TRUE(report.complete());
}

TEST_F(LoadTest, TableOfFourColumnsLoadsWithoutExpiries) {
    run({"alter table grey_list drop ExpiryTime",
         "insert into grey_list values ('192.0.2.0/24', 'a@b', 'c@d', 7), ('192.0.2.0/24', 'b@b', 'c@d', 8)"});
    read();
    EXPECT_THAT(tuplesHeld(), ElementsAre("192.0.2.0/24 a@b c@d 7 0 0", "192.0.2.0/24 b@b c@d 8 0 0"));
    EXPECT_TRUE(LoadReport::last().complete());
}

TEST_F(LoadTest, RowWithAnEmptySenderRefusesTheTuplesAndTheExemptionsStillLoad) {
    run({"insert into grey_list values ('192.0.2.0/24', 'a@b', 'c@d', 1, 2), ('198.51.100.0/24', '', 'c@d', 3, 4)",
         "insert into autoexempt values ('192.0.2.0/24', 'd', 5, 6)"});
    read();
    EXPECT_EQ(tuplesHeld(), m_tuplesBefore);
    EXPECT_THAT(exemptionsHeld(), ElementsAre("192.0.2.0/24 d 5 6 0"));
    expectFailure(416, "RecordRow (code 4, GlRecordDatabase:75): Invalid GreyList Record",
                  "the row ('198.51.100.0/24', '', 'c@d', '3', '4'); row 2 of grey_list");
    LoadReport const report = LoadReport::last();
    EXPECT_TRUE(report.tuples.attempted);
    EXPECT_FALSE(report.tuples.loaded);
    EXPECT_THAT(report.tuples.problem, HasSubstr("row 2 of grey_list"));
    EXPECT_TRUE(report.exemptions.loaded);
    EXPECT_FALSE(report.complete());
}

TEST_F(LoadTest, EveryEmptyColumnRefuses) {
    for (char const* const values : {"'', 'a@b', 'c@d', 1, 2", "'192.0.2.0/24', 'a@b', '', 1, 2"}) {
        m_log.clear();
        run({"delete from grey_list", "insert into grey_list values (" + std::string(values) + ")"});
        read();
        EXPECT_EQ(tuplesHeld(), m_tuplesBefore) << values;
        expectFailure(416, "RecordRow (code 4, GlRecordDatabase:75): Invalid GreyList Record", "row 1 of grey_list");
    }
}

TEST_F(LoadTest, NullIsAnEmptyColumn) {
    for (bool const creation : {true, false}) {
        m_log.clear();
        run({"delete from grey_list",
             std::string("alter table grey_list modify ") + (creation ? "CreationTime" : "ExpiryTime") + " int null",
             std::string("insert into grey_list values ('192.0.2.0/24', 'a@b', 'c@d', ") +
                 (creation ? "null, 1)" : "1, null)")});
        read();
        expectFailure(416, "RecordRow (code 4, GlRecordDatabase:75): Invalid GreyList Record", "row 1 of grey_list");
    }
}

TEST_F(LoadTest, EmptyColumnOfATableOfFourIsRefusedByItsOwnLine) {
    run({"alter table grey_list drop ExpiryTime", "insert into grey_list values ('192.0.2.0/24', 'a@b', '', 7)"});
    read();
    EXPECT_EQ(tuplesHeld(), m_tuplesBefore);
    expectFailure(416, "RecordRow (code 4, GlRecordDatabase:38): Invalid GreyList Record", "row 1 of grey_list");
}

TEST_F(LoadTest, TablesOfThreeOrSixColumnsAreRefused) {
    run({"insert into grey_list values ('192.0.2.0/24', 'a@b', 'c@d', 1, 2)",
         "alter table grey_list add Extra int not null"});
    read();
    expectFailure(416, "RecordRow (code 4, GlRecordDatabase:68): Invalid GreyList Record", "row 1 of grey_list");
    m_log.clear();
    run({"alter table grey_list drop Extra, drop ExpiryTime, drop CreationTime"});
    read();
    expectFailure(416, "RecordRow (code 4, GlRecordDatabase:68): Invalid GreyList Record", "row 1 of grey_list");
    EXPECT_EQ(tuplesHeld(), m_tuplesBefore);
}

TEST_F(LoadTest, TableOfSixColumnsWithoutARowLoads) {
    run({"alter table grey_list add Extra int not null"});
    read();
    EXPECT_THAT(tuplesHeld(), IsEmpty());
    EXPECT_TRUE(LoadReport::last().complete());
}

TEST_F(LoadTest, ValuesThatAreNoneAreRefusedByTheirParsers) {
    for (auto const& [values, begin] :
         {std::pair("'192.0.2.0.0/24', 'a@b', 'c@d', 1, 2", "IPAddressMask::IPAddressMask (code 4"),
          std::pair("'192.0.2.0/33', 'a@b', 'c@d', 1, 2", "IPAddressMask::IPAddressMask (code 4"),
          std::pair("'192.0.2.0/24', 'a@@b', 'c@d', 1, 2", "EmailAddress::rfc5321Parse (code 4"),
          std::pair("'192.0.2.0/24', 'a@b', 'c d@e', 1, 2", "EmailAddress::rfc5321Parse (code 4"),
          std::pair("'192.0.2.0/24', 'a\x01@b', 'c@d', 1, 2", "EmailAddress::rfc5321Parse (code 4"),
          std::pair("'192.0.2.0/24', 'a@b', 'c@d\\n', 1, 2", "EmailAddress::rfc5321Parse (code 4")}) {
        m_log.clear();
        run({"delete from grey_list", "insert into grey_list values ('10.0.0.0/24', 'a@b', 'c@d', 1, 2)",
             "insert into grey_list values (" + std::string(values) + ")"});
        read();
        EXPECT_EQ(tuplesHeld(), m_tuplesBefore) << values;
        expectFailure(416, begin, "row 2 of grey_list");
    }
}

TEST_F(LoadTest, RowWithAnEmptyDomainRefusesTheExemptionsAndTheTuplesStillLoad) {
    run({"insert into grey_list values ('192.0.2.0/24', 'a@b', 'c@d', 1, 2)",
         "insert into autoexempt values ('192.0.2.0/24', 'd', 5, 6), ('198.51.100.0/24', '', 7, 8)"});
    read();
    EXPECT_THAT(tuplesHeld(), ElementsAre("192.0.2.0/24 a@b c@d 1 2 0"));
    EXPECT_EQ(exemptionsHeld(), m_exemptionsBefore);
    expectFailure(441, "RecordRow (code 4, GlRecordDatabase:134): Invalid GreyList Auto Exempt Record",
                  "the row ('198.51.100.0/24', '', '7', '8'); row 2 of autoexempt");
    LoadReport const report = LoadReport::last();
    EXPECT_TRUE(report.tuples.loaded);
    EXPECT_FALSE(report.exemptions.loaded);
    EXPECT_FALSE(report.complete());
}

TEST_F(LoadTest, FailedHalfIsForgottenByTheNextSuccess) {
    run({"insert into grey_list values ('192.0.2.0/24', '', 'c@d', 1, 2)"});
    read();
    EXPECT_FALSE(LoadReport::last().complete());
    run({"delete from grey_list"});
    read();
    EXPECT_TRUE(LoadReport::last().complete());
    EXPECT_EQ(LoadReport::last().tuples.problem, "");
}

TEST_F(LoadTest, MissingTablesAreTwoRecordsAndTheCachesStay) {
    GlRecordDatabase database(address());
    run({"drop table grey_list", "drop table autoexempt"});
    database.read();
    EXPECT_EQ(tuplesHeld(), m_tuplesBefore);
    EXPECT_EQ(exemptionsHeld(), m_exemptionsBefore);
    auto const records = m_log.records(0x300019E);
    ASSERT_EQ(records.size(), 2U);
    EXPECT_EQ(records[0].fields[1], "416");
    EXPECT_EQ(records[1].fields[1], "441");
    for (auto const& record : records) {
        EXPECT_THAT(record.fields[2], AllOf(StartsWith("Query::execute (code 4)"), HasSubstr("error 1146")));
    }
}

TEST_F(LoadTest, SessionThatIsGoneIsTwoRecordsAndTheCachesStay) {
    GlRecordDatabase database(address());
    server().run({"KILL USER vellum"});
    database.read();
    EXPECT_EQ(m_log.records(0x300019E).size(), 2U);
    EXPECT_EQ(tuplesHeld(), m_tuplesBefore);
    EXPECT_EQ(exemptionsHeld(), m_exemptionsBefore);
}

TEST(LoadDeathTest, WithoutAConfigurationBothHalvesAreLoggedAndNothingIsThrown) {
    expectInOwnProcess([] {
        CapturingLogger log;
        PrivateMariaDb server;
        server.freshDatabase();
        GlRecordDatabase(Database::Connection::defaultAddress()).read();
        ASSERT_EQ(log.lines().size(), 2U);
        EXPECT_EQ(log.lines()[0].code, 0x300019EU);
        EXPECT_THAT(log.lines()[0].fields,
                    ElementsAre("GlRecordDatabase", "416", "operator-> (code 1, include2/VellumRefcounted:359)"));
        EXPECT_EQ(log.lines()[1].code, 0x300019EU);
        EXPECT_THAT(log.lines()[1].fields,
                    ElementsAre("GlRecordDatabase", "441", "operator-> (code 1, include2/VellumRefcounted:359)"));
        EXPECT_FALSE(LoadReport::last().complete());
    });
}

TEST_F(LoadTest, TimesAreCutToThirtyTwoBits) {
    run({"alter table grey_list modify CreationTime bigint not null, modify ExpiryTime bigint not null",
         "insert into grey_list values ('192.0.2.0/24', 'a@b', 'c@d', 4294967301, 2147483648)",
         "insert into grey_list values ('192.0.2.0/24', 'b@b', 'c@d', 2147483647, -2147483648)"});
    read();
    EXPECT_THAT(tuplesHeld(),
                ElementsAre("192.0.2.0/24 a@b c@d 5 -2147483648 0", "192.0.2.0/24 b@b c@d 2147483647 -2147483648 0"));
}

TEST_F(LoadTest, ExpiredAndDeadRecordsAreLoaded) {
    run({"insert into grey_list values ('192.0.2.0/24', 'a@b', 'c@d', 0, 0)",
         "insert into autoexempt values ('192.0.2.0/24', 'd', 0, 0)"});
    read();
    EXPECT_THAT(tuplesHeld(), ElementsAre("192.0.2.0/24 a@b c@d 0 0 0"));
    EXPECT_THAT(exemptionsHeld(), ElementsAre("192.0.2.0/24 d 0 0 0"));
}

TEST_F(LoadTest, MoreRowsThanTheCacheHoldsLeaveTheLastOfThem) {
    std::string insert = "insert into grey_list values ";
    for (int n = 0; n < capacity + 10; ++n) {
        insert += (n == 0 ? "" : ",") + ("('192.0.2.0/24', 's" + std::to_string(100000 + n)) + "@b', 'c@d', 1, 2)";
    }
    run({insert});
    read();
    EXPECT_EQ(sizeOf(m_tuples), static_cast<std::uint32_t>(capacity));
    EXPECT_FALSE(holds(m_tuples, tuple("192.0.2.0/24", "s100009@b", "c@d")));
    EXPECT_TRUE(holds(m_tuples, tuple("192.0.2.0/24", "s100010@b", "c@d")));
    EXPECT_EQ(LoadReport::last().tuples.rows, static_cast<std::uint64_t>(capacity + 10));
    EXPECT_TRUE(m_log.lines().empty());
}

TEST_F(LoadTest, ForeignBytesOfARowDoNotForgeALogField) {
    run({"insert into grey_list values ('192.0.2.0/24', 'a\x01"
         "b\\n', '', 1, 2)"});
    read();
    expectFailure(416, "RecordRow", "row 1 of grey_list");
    std::string const text = m_log.lines().front().fields[2];
    EXPECT_TRUE(std::none_of(text.begin(), text.end(), [](unsigned char c) { return c < 0x20; })) << text;
}

} // namespace
} // namespace Vellum::GreyList
