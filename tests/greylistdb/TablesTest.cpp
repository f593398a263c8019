// What the two database classes do to their tables, statement by statement.
#include "tests/support/GreylistTables.h"

#include "foundation/database/Query.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <mysqld_error.h>

namespace Vellum::GreyList {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class TablesTest : public GreylistTables {
  protected:
    static Rows tables() { return server().query("SHOW TABLES"); }
    static Rows columnsOf(std::string const& table) {
        return server().query("SELECT COLUMN_NAME, COLUMN_TYPE, IS_NULLABLE, COLUMN_KEY FROM "
                              "information_schema.COLUMNS WHERE TABLE_SCHEMA='fe_sender_history' AND TABLE_NAME='" +
                              table + "' ORDER BY ORDINAL_POSITION");
    }
    static std::string engineOf(std::string const& table) {
        return server().query("SELECT ENGINE FROM information_schema.TABLES WHERE TABLE_SCHEMA='fe_sender_history' AND "
                              "TABLE_NAME='" +
                              table + "'")[0];
    }
};

TEST_F(TablesTest, TupleTableIsMadeWithThisText) {
    GlRecordDatabase database(address());
    EXPECT_THAT(sent([&] { database.createTable(); }),
                ElementsAre("DROP TABLE IF EXISTS grey_list",
                            "create table grey_list (\n"
                            " ClientIPAddress varchar( 128 ) not null,\n"
                            " SenderEmailAddress varchar( 128 ) not null,\n"
                            " RecipientEmailAddress varchar( 128 ) not null,\n"
                            " CreationTime int not null, ExpiryTime int not null, Primary Key ( ClientIPAddress, "
                            "SenderEmailAddress, RecipientEmailAddress))\n"
                            " engine=InnoDB"));
}

TEST_F(TablesTest, ExemptionTableIsMadeWithThisText) {
    DynamicExemptDatabase const database(address());
    EXPECT_THAT(sent([&] { database.createTable(); }),
                ElementsAre("DROP TABLE IF EXISTS autoexempt",
                            "create table autoexempt (\n"
                            " ClientIPAddressMask varchar( 128 ) not null,\n"
                            " Domain varchar( 128 ) not null,\n"
                            " CreationTime int not null, ExpiryTime int not null, Primary Key ( ClientIPAddressMask, "
                            "Domain ))\n"
                            " engine=InnoDB"));
}

TEST_F(TablesTest, TupleTableIsUpgradedAndDroppedWithTheseTexts) {
    GlRecordDatabase database(address());
    EXPECT_THAT(sent([&] { database.upgradeTable(); }),
                ElementsAre("ALTER table grey_list \n MODIFY ClientIPAddress varchar( 128 ) not null"));
    EXPECT_THAT(sent([&] { database.dropTable(); }), ElementsAre("drop table grey_list"));
    EXPECT_THAT(tables(), ElementsAre("autoexempt"));
}

TEST_F(TablesTest, ExemptionTableIsUpgradedWithThisText) {
    DynamicExemptDatabase const database(address());
    EXPECT_THAT(sent([&] { database.upgradeTable(); }),
                ElementsAre("ALTER table autoexempt MODIFY ClientIPAddressMask varchar( 128 ) not null"));
}

TEST_F(TablesTest, ColumnsKeysAndEngineAreThoseOfDatabasesInTheField) {
    EXPECT_THAT(columnsOf("grey_list"),
                ElementsAre("ClientIPAddress|varchar(128)|NO|PRI", "SenderEmailAddress|varchar(128)|NO|PRI",
                            "RecipientEmailAddress|varchar(128)|NO|PRI", "CreationTime|int(11)|NO|",
                            "ExpiryTime|int(11)|NO|"));
    EXPECT_THAT(columnsOf("autoexempt"),
                ElementsAre("ClientIPAddressMask|varchar(128)|NO|PRI", "Domain|varchar(128)|NO|PRI",
                            "CreationTime|int(11)|NO|", "ExpiryTime|int(11)|NO|"));
    EXPECT_EQ(engineOf("grey_list"), "InnoDB");
    EXPECT_EQ(engineOf("autoexempt"), "InnoDB");
}

TEST_F(TablesTest, MakingATableAgainDropsItsRows) {
    run({"insert into grey_list values ('192.0.2.0/24', 'a@b', 'c@d', 1, 2)",
         "insert into autoexempt values ('192.0.2.0/24', 'd', 1, 2)"});
    GlRecordDatabase(address()).createTable();
    EXPECT_THAT(tupleRows(), IsEmpty());
    EXPECT_EQ(exemptionRows().size(), 1U);
    DynamicExemptDatabase(address()).createTable();
    EXPECT_THAT(exemptionRows(), IsEmpty());
}

TEST_F(TablesTest, UpgradingWidensAnOldColumnAndKeepsTheRows) {
    run({"alter table grey_list modify ClientIPAddress varchar(20) not null",
         "alter table autoexempt modify ClientIPAddressMask varchar(20) not null",
         "insert into grey_list values ('192.0.2.0/24', 'a@b', 'c@d', 1, 2)",
         "insert into autoexempt values ('192.0.2.0/24', 'd', 1, 2)"});
    GlRecordDatabase(address()).upgradeTable();
    DynamicExemptDatabase(address()).upgradeTable();
    EXPECT_EQ(columnsOf("grey_list").front(), "ClientIPAddress|varchar(128)|NO|PRI");
    EXPECT_EQ(columnsOf("autoexempt").front(), "ClientIPAddressMask|varchar(128)|NO|PRI");
    EXPECT_THAT(tupleRows(), ElementsAre("192.0.2.0/24|a@b|c@d|1|2"));
    EXPECT_THAT(exemptionRows(), ElementsAre("192.0.2.0/24|d|1|2"));
}

// Both the operation's own exception and its cause.
void expectWrapped(std::optional<Exception> const& refused, std::string const& where, std::string const& source,
                   unsigned int line, unsigned int serverError) {
    ASSERT_TRUE(refused.has_value()) << where;
    EXPECT_EQ(refused->where(), where);
    EXPECT_EQ(refused->code(), 4);
    EXPECT_EQ(refused->sourceFile(), source);
    EXPECT_EQ(refused->line(), line);
    ASSERT_NE(refused->cause(), nullptr);
    EXPECT_EQ(refused->cause()->where(), "Query::execute");
    EXPECT_THAT(refused->cause()->asString(), HasSubstr("error " + std::to_string(serverError)));
}

TEST_F(TablesTest, FailuresAreNamedAfterTheOperation) {
    GlRecordDatabase records(address());
    DynamicExemptDatabase const exemptions(address());
    run({"drop table grey_list", "drop table autoexempt"});
    expectWrapped(refusalOf([&] { records.upgradeTable(); }), "GlRecordDatabase::upgradeTable", "GlRecordDatabase", 250,
                  ER_NO_SUCH_TABLE);
    expectWrapped(refusalOf([&] { records.dropTable(); }), "GlRecordDatabase::dropTable", "GlRecordDatabase", 263,
                  ER_BAD_TABLE_ERROR);
    expectWrapped(refusalOf([&] { exemptions.upgradeTable(); }), "GreyList::DynamicExemptDatabase::upgradeTable",
                  "GlDynamicExemptDatabase", 170, ER_NO_SUCH_TABLE);
    server().removeDatabases();
    expectWrapped(refusalOf([&] { records.createTable(); }), "GlRecordDatabase::createTable", "GlRecordDatabase", 234,
                  ER_BAD_DB_ERROR);
    expectWrapped(refusalOf([&] { exemptions.createTable(); }),
                  "GreyList::DynamicExemptDatabase::createDynamicExemptRecordSetTable", "GlDynamicExemptDatabase", 155,
                  ER_BAD_DB_ERROR);
}

TEST_F(TablesTest, DatabaseThatIsNotThereIsNamed) {
    server().removeDatabases();
    for (auto const& refused : {refusalOf([] { GlRecordDatabase const none(address()); }),
                                refusalOf([] { DynamicExemptDatabase const none(address()); })}) {
        ASSERT_TRUE(refused.has_value());
        EXPECT_THAT(refused->asString(), HasSubstr("database \"fe_sender_history\""));
    }
}

class DynamicExemptDatabaseTest : public TablesTest {};

TEST_F(DynamicExemptDatabaseTest, HasItsDatabasesNameAndAConnectionToIt) {
    EXPECT_EQ(DynamicExemptDatabase::dbname, "fe_sender_history");
    DynamicExemptDatabase database(address());
    Database::Query query(database.connection(), nullptr, true);
    query << "insert into autoexempt values ('192.0.2.0/24', 'd', 1, 2)";
    query.execute();
    EXPECT_EQ(exemptionRows().size(), 1U);
}

TEST_F(DynamicExemptDatabaseTest, InitializingAnExistingDatabaseChangesNothing) {
    run({"insert into autoexempt values ('192.0.2.0/24', 'd', 1, 2)"});
    DynamicExemptDatabase::initialize(address(), false);
    EXPECT_EQ(exemptionRows().size(), 1U);
    EXPECT_THAT(tables(), ElementsAre("autoexempt", "grey_list"));
}

TEST_F(DynamicExemptDatabaseTest, RecreatingDropsEverything) {
    DynamicExemptDatabase::initialize(address(), true);
    EXPECT_THAT(tables(), IsEmpty());
    EXPECT_EQ(server().query("select @@collation_database").front(), "latin1_nopad_bin");
}

TEST_F(DynamicExemptDatabaseTest, InitializingMakesAMissingDatabase) {
    for (bool const recreate : {false, true}) {
        server().removeDatabases();
        DynamicExemptDatabase::initialize(address(), recreate);
        EXPECT_THAT(tables(), IsEmpty());
    }
}

TEST_F(DynamicExemptDatabaseTest, ReadAddsToWhatTheCacheHolds) {
    m_exemptions.add(exemption("192.0.2.0/24", "a.example"), Status(5, 6, 7));
    m_exemptions.add(exemption("192.0.2.0/24", "other.example"), Status(8, 9, 10));
    run({"insert into autoexempt values ('192.0.2.0/24', 'a.example', 1, 2), ('2001:db8::/64', 'B.example ', 3, 4)"});
    DynamicExemptDatabase const database(address());
    EXPECT_THAT(sent([&] { database.read(); }), ElementsAre("select * from autoexempt"));
    EXPECT_THAT(exemptionsHeld(), ElementsAre("2001:db8::/64 B.example  3 4 0", "192.0.2.0/24 a.example 5 6 7",
                                              "192.0.2.0/24 other.example 8 9 10"));
    EXPECT_FALSE(LoadReport::last().exemptions.attempted) << "the record database's business";
}

TEST_F(DynamicExemptDatabaseTest, RowWithAnEmptyColumnRefusesTheReadAndLeavesTheCache) {
    run({"insert into autoexempt values ('192.0.2.0/24', 'a.example', 1, 2), ('192.0.2.0/24', '', 3, 4)"});
    DynamicExemptDatabase const database(address());
    auto const refused = refusalOf([&] { database.read(); });
    ASSERT_TRUE(refused.has_value());
    EXPECT_EQ(refused->where(), "DynamicExemptDatabase::read");
    EXPECT_EQ(refused->code(), 4);
    EXPECT_EQ(refused->sourceFile(), "GlDynamicExemptDatabase");
    EXPECT_EQ(refused->line(), 199U);
    EXPECT_THAT(refused->stringParameters(), ElementsAre("Error reading autoexempt"));
    ASSERT_NE(refused->cause(), nullptr);
    EXPECT_EQ(refused->cause()->where(), "DynamicExemptRecordRow");
    EXPECT_EQ(refused->cause()->code(), 4);
    EXPECT_EQ(refused->cause()->sourceFile(), "GlDynamicExemptDatabase");
    EXPECT_EQ(refused->cause()->line(), 57U);
    EXPECT_EQ(refused->cause()->stringParameters().front(), "Invalid Dynamic Greylist Record");
    EXPECT_THAT(exemptionsHeld(), IsEmpty());
    EXPECT_TRUE(m_log.lines().empty()) << "thrown, not logged";
}

TEST_F(DynamicExemptDatabaseTest, FailedQueryIsNamedLikewise) {
    DynamicExemptDatabase const database(address());
    run({"drop table autoexempt"});
    auto const refused = refusalOf([&] { database.read(); });
    ASSERT_TRUE(refused.has_value());
    EXPECT_EQ(refused->line(), 199U);
    EXPECT_THAT(refused->stringParameters(), ElementsAre("Error reading autoexempt"));
    EXPECT_THAT(refused->cause()->asString(), HasSubstr("error 1146"));
}

} // namespace
} // namespace Vellum::GreyList
