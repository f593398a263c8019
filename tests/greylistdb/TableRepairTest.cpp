// Tables that older versions or other hands have made.
#include "greylist/TableRepair.h"

#include "tests/support/GreylistTables.h"

#include "greylist/CronJobBackup.h"
#include "tests/support/FakeDatabaseDaemon.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Vellum::GreyList {
namespace {

using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

// The product's own statements, in a database with another character set.
std::string const oldTuples = "create table grey_list (ClientIPAddress varchar(128) not null, SenderEmailAddress "
                              "varchar(128) not null, RecipientEmailAddress varchar(128) not null, CreationTime int "
                              "not null, ExpiryTime int not null, primary key (ClientIPAddress, SenderEmailAddress, "
                              "RecipientEmailAddress)) engine=InnoDB ";
std::string const oldExemptions = "create table autoexempt (ClientIPAddressMask varchar(128) not null, Domain "
                                  "varchar(128) not null, CreationTime int not null, ExpiryTime int not null, "
                                  "primary key (ClientIPAddressMask, Domain)) engine=InnoDB ";

class TableRepairTest : public GreylistTables {
  protected:
    // The tables as a server's own default makes them.
    static void makeOldTables(std::string const& characterSet = "character set utf8mb4 collate utf8mb4_general_ci") {
        run({"drop table grey_list", "drop table autoexempt", oldTuples + characterSet, oldExemptions + characterSet});
    }
    static std::vector<std::string> repair() {
        Database::Connection connection(address(), databaseName);
        return repairTables(connection);
    }
    static Rows collations() {
        return server().query("SELECT DISTINCT COLLATION_NAME FROM information_schema.COLUMNS WHERE "
                              "TABLE_SCHEMA='fe_sender_history' AND COLLATION_NAME IS NOT NULL");
    }
    // Pairs that only a comparison byte by byte tells apart go through a backup and a restore.
    void expectAwkwardPairsAreStored() {
        for (char const* const sender : {"john@example.org", "John@example.org", "\"john\"@example.org",
                                         "caf\xc3\xa9@example.org", "cafe@example.org", "\xff@example.org"}) {
            m_tuples.add(tuple("192.0.2.0/24", sender, "c@d"), Status(1, 2, 0));
        }
        for (char const* const domain : {"example.org", "Example.org", "example.org ", "\xe9.example", "e.example"}) {
            m_exemptions.add(exemption("192.0.2.0/24", domain), Status(1, 2, 0));
        }
        Rows const tuples = tuplesHeld();
        Rows const exemptions = exemptionsHeld();
        FakeDatabaseDaemon const daemon;
        ASSERT_TRUE(GlRecordDatabase(address()).write());
        ASSERT_EQ(restoreEntries(scriptPath().c_str()), 0);
        read();
        EXPECT_EQ(tuplesHeld(), tuples);
        EXPECT_EQ(exemptionsHeld(), exemptions);
        EXPECT_TRUE(m_log.records().empty()) << m_log.records().front().text;
    }
};

TEST_F(TableRepairTest, TablesThatFitAreLeftAlone) {
    auto const before = server().query("show create table grey_list");
    EXPECT_THAT(sent([] { EXPECT_THAT(repair(), IsEmpty()); }), Each(testing::Not(HasSubstr("ALTER"))));
    EXPECT_EQ(server().query("show create table grey_list"), before);
}

TEST_F(TableRepairTest, MissingTablesAreNoneOfItsBusiness) {
    run({"drop table grey_list", "drop table autoexempt"});
    EXPECT_THAT(repair(), IsEmpty());
}

TEST_F(TableRepairTest, TablesOfTheServersDefaultAreComparedByteByByteFromThenOn) {
    makeOldTables();
    run({"insert into grey_list values ('192.0.2.0/24', 'John@example.org', 'c@d', 1, 2)",
         "insert into autoexempt values ('192.0.2.0/24', 'Example.org', 3, 4)"});
    EXPECT_THAT(repair(), ElementsAre("table grey_list took texts that differ in letter case or trailing blanks for "
                                      "equal: now compared byte by byte",
                                      "table autoexempt took texts that differ in letter case or trailing blanks for "
                                      "equal: now compared byte by byte"));
    EXPECT_THAT(tupleRows(), ElementsAre("192.0.2.0/24|John@example.org|c@d|1|2"));
    EXPECT_THAT(exemptionRows(), ElementsAre("192.0.2.0/24|Example.org|3|4"));
    EXPECT_THAT(collations(), ElementsAre("latin1_nopad_bin"));
    EXPECT_THAT(repair(), IsEmpty()) << "once is enough";
    expectAwkwardPairsAreStored();
}

TEST_F(TableRepairTest, UpgradeAfterARepairKeepsIt) {
    makeOldTables();
    repair();
    GlRecordDatabase(address()).upgradeTable();
    DynamicExemptDatabase(address()).upgradeTable();
    EXPECT_THAT(repair(), IsEmpty());
    EXPECT_THAT(collations(), ElementsAre("latin1_nopad_bin"));
}

TEST_F(TableRepairTest, BytesOfEveryCharacterSetStayWhatTheyAre) {
    for (char const* const characterSet :
         {"character set utf8mb4", "character set latin1", "character set latin1 collate latin1_bin",
          "character set utf8mb3", "character set binary"}) {
        makeOldTables(characterSet);
        run({"set names binary", "insert into grey_list values ('192.0.2.0/24', 'caf\xc3\xa9@b', 'c@d', 1, 2)"});
        repair();
        EXPECT_THAT(tupleRows(), ElementsAre("192.0.2.0/24|caf\xc3\xa9@b|c@d|1|2")) << characterSet;
        EXPECT_THAT(repair(), IsEmpty()) << characterSet;
    }
    expectAwkwardPairsAreStored();
}

TEST_F(TableRepairTest, SingleFoldedColumnIsEnough) {
    run({"alter table autoexempt modify Domain varchar(128) character set utf8mb4 collate utf8mb4_general_ci not "
         "null"});
    EXPECT_EQ(repair().size(), 1U);
    EXPECT_THAT(collations(), ElementsAre("latin1_nopad_bin"));
    expectAwkwardPairsAreStored();
}

TEST_F(TableRepairTest, MissingExpiryIsAddedAndItsTuplesCountAsExpired) {
    run({"alter table grey_list drop ExpiryTime", "insert into grey_list values ('192.0.2.0/24', 'a@b', 'c@d', 7)"});
    EXPECT_THAT(repair(), ElementsAre("table grey_list had no column ExpiryTime: added, its tuples count as expired"));
    EXPECT_THAT(tupleRows(), ElementsAre("192.0.2.0/24|a@b|c@d|7|0"));
    EXPECT_THAT(repair(), IsEmpty());
    expectAwkwardPairsAreStored();
}

TEST_F(TableRepairTest, EverythingAtOnce) {
    makeOldTables();
    run({"alter table grey_list drop ExpiryTime", "insert into grey_list values ('192.0.2.0/24', 'A@b', 'c@d', 7)"});
    EXPECT_EQ(repair().size(), 3U);
    EXPECT_THAT(tupleRows(), ElementsAre("192.0.2.0/24|A@b|c@d|7|0"));
    expectAwkwardPairsAreStored();
}

TEST_F(TableRepairTest, TextOfMoreBytesThanTheColumnIsAnErrorAndLosesNothing) {
    makeOldTables("character set utf8mb4");
    std::string wide;
    for (int n = 0; n < 100; ++n) {
        wide += "\xc3\xa9";
    }
    run({"set names utf8mb4", "insert into grey_list values ('192.0.2.0/24', '" + wide + "', 'c@d', 1, 2)"});
    EXPECT_THROW(repair(), Database::DatabaseException);
    EXPECT_THAT(server().query("select count(*) from grey_list where length(SenderEmailAddress) = 200"),
                ElementsAre("1"));
}

} // namespace
} // namespace Vellum::GreyList
