// Making, upgrading, dropping and repairing the tables.
#include "tests/support/ReputationTables.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Vellum::Reputation {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

constexpr char const* createRecords = "create table sender_reputation (\n"
                                      " ClientIPAddress varchar( 128 ) not null,\n"
                                      " Period int not null,\n"
                                      " MessageCount int not null, \n"
                                      " Recipients int not null,\n"
                                      " InvalidRecipients int not null,\n"
                                      " Infected int not null, \n"
                                      " Spam int not null,\n"
                                      " Primary Key ( ClientIPAddress,Period ))\n"
                                      " engine=InnoDB";
constexpr char const* createStates = "create table sender_reputation_state (\n"
                                     " ClientIPAddress varchar( 128 ) not null,\n"
                                     " State int not null,\n"
                                     " Primary Key ( ClientIPAddress ))\n"
                                     " engine=InnoDB";

class TablesTest : public ReputationTables {
  protected:
    TablesTest() {
        run({"insert into sender_reputation values ('192.0.2.25', 5, 1, 2, 3, 4, 5)",
             "insert into sender_reputation_state values ('192.0.2.25', 1)"});
    }
    static Rows tables() { return server().query("SHOW TABLES"); }
    static Rows columnsOf(std::string const& table) {
        return server().query(
            "select COLUMN_NAME, COLUMN_TYPE, IS_NULLABLE, COLUMN_KEY from information_schema.COLUMNS "
            "where TABLE_SCHEMA = 'fe_sender_history' and TABLE_NAME = '" +
            table + "' order by ORDINAL_POSITION");
    }
    static std::vector<std::string> repair() {
        Vellum::Database::Connection connection(DatabaseTables::address(), databaseName);
        return repairTables(connection);
    }
};

TEST_F(TablesTest, BothAreMadeWithThisText) {
    Database database(DatabaseTables::address());
    EXPECT_THAT(sent([&] { database.createTable(); }),
                ElementsAre("DROP TABLE IF EXISTS sender_reputation", createRecords,
                            "DROP TABLE IF EXISTS sender_reputation_state", createStates));
    EXPECT_THAT(recordRows(), IsEmpty());
    EXPECT_THAT(stateRows(), IsEmpty());
}

TEST_F(TablesTest, OneIsMadeAloneAndTheOtherKeepsItsRows) {
    Database database(DatabaseTables::address());
    EXPECT_THAT(sent([&] { database.createTable(statesTable); }),
                ElementsAre("DROP TABLE IF EXISTS sender_reputation_state", createStates));
    EXPECT_EQ(recordRows().size(), 1U);
    EXPECT_THAT(stateRows(), IsEmpty());
    run({"insert into sender_reputation_state values ('192.0.2.25', 1)"});
    EXPECT_THAT(sent([&] { database.createTable(recordsTable); }),
                ElementsAre("DROP TABLE IF EXISTS sender_reputation", createRecords));
    EXPECT_EQ(stateRows().size(), 1U);
    EXPECT_THAT(recordRows(), IsEmpty());
}

TEST_F(TablesTest, BothAreUpgradedAndDroppedWithTheseTexts) {
    Database database(DatabaseTables::address());
    EXPECT_THAT(sent([&] { database.upgradeTable(); }),
                ElementsAre("ALTER table sender_reputation MODIFY ClientIPAddress varchar( 128 ) not null",
                            "ALTER table sender_reputation_state MODIFY ClientIPAddress varchar( 128 ) not null"));
    EXPECT_THAT(sent([&] { database.dropTable(); }),
                ElementsAre("drop table sender_reputation", "drop table sender_reputation_state"));
    EXPECT_THAT(tables(), IsEmpty());
}

TEST_F(TablesTest, OneIsUpgradedAlone) {
    Database database(DatabaseTables::address());
    EXPECT_THAT(sent([&] { database.upgradeTable(statesTable); }),
                ElementsAre("ALTER table sender_reputation_state MODIFY ClientIPAddress varchar( 128 ) not null"));
}

TEST_F(TablesTest, ColumnsAndKeysAreThoseOfDatabasesInTheField) {
    EXPECT_THAT(columnsOf("sender_reputation"),
                ElementsAre("ClientIPAddress|varchar(128)|NO|PRI", "Period|int(11)|NO|PRI", "MessageCount|int(11)|NO|",
                            "Recipients|int(11)|NO|", "InvalidRecipients|int(11)|NO|", "Infected|int(11)|NO|",
                            "Spam|int(11)|NO|"));
    EXPECT_THAT(columnsOf("sender_reputation_state"),
                ElementsAre("ClientIPAddress|varchar(128)|NO|PRI", "State|int(11)|NO|"));
}

TEST_F(TablesTest, UpgradingWidensAnOldColumnAndKeepsTheRows) {
    run({"alter table sender_reputation modify ClientIPAddress varchar(16) not null",
         "alter table sender_reputation_state modify ClientIPAddress varchar(16) not null"});
    Database(DatabaseTables::address()).upgradeTable();
    EXPECT_EQ(columnsOf("sender_reputation").front(), "ClientIPAddress|varchar(128)|NO|PRI");
    EXPECT_EQ(columnsOf("sender_reputation_state").front(), "ClientIPAddress|varchar(128)|NO|PRI");
    EXPECT_THAT(recordRows(), ElementsAre("192.0.2.25|5|1|2|3|4|5"));
    EXPECT_THAT(stateRows(), ElementsAre("192.0.2.25|1"));
}

TEST_F(TablesTest, FailuresAreNamedAfterTheirOperation) {
    Database database(DatabaseTables::address());
    database.dropTable();
    auto const upgrade = refusalOf([&] { database.upgradeTable(); });
    ASSERT_TRUE(upgrade.has_value());
    EXPECT_THAT(upgrade->asString(), StartsWith("Database::upgradeTable (code 4, ReputationDatabase:164)"));
    EXPECT_THAT(upgrade->asString(), HasSubstr("sender_reputation' doesn't exist"));
    auto const drop = refusalOf([&] { database.dropTable(); });
    ASSERT_TRUE(drop.has_value());
    EXPECT_THAT(drop->asString(), StartsWith("Database::dropTable (code 4, ReputationDatabase:187)"));
    run({"create view sender_reputation as select 1"});
    auto const create = refusalOf([&] { database.createTable(); });
    ASSERT_TRUE(create.has_value());
    EXPECT_THAT(create->asString(), StartsWith("Database::createTable (code 4, ReputationDatabase:143)"));
    EXPECT_TRUE(m_log.lines().empty());
}

TEST_F(TablesTest, RepairHasBothTablesComparedAlike) {
    EXPECT_THAT(repair(), IsEmpty());
    run({"alter table sender_reputation convert to character set utf8mb4 collate utf8mb4_general_ci"});
    EXPECT_THAT(repair(), ElementsAre(StartsWith("table sender_reputation took texts that differ in letter case")));
    EXPECT_THAT(recordRows(), ElementsAre("192.0.2.25|5|1|2|3|4|5"));
    run({"alter table sender_reputation_state convert to character set latin1 collate latin1_swedish_ci"});
    EXPECT_THAT(repair(), ElementsAre(StartsWith("table sender_reputation_state took texts")));
    EXPECT_THAT(repair(), IsEmpty());
    read();
    EXPECT_THAT(held(), ElementsAre("192.0.2.25 1: 5=1/2/3/4/5"));
}

} // namespace
} // namespace Vellum::Reputation
