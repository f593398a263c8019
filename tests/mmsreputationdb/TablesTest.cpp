// What the database class does to its tables, statement by statement.
#include "tests/support/EndpointTables.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <mysqld_error.h>

namespace Vellum::MMSReputation {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class EndpointTablesTest : public EndpointTables {
  protected:
    static Rows tables() { return server().query("SHOW TABLES"); }
    static Rows columnsOf(std::string const& table) {
        return server().query("SELECT COLUMN_NAME, COLUMN_TYPE, IS_NULLABLE, COLUMN_KEY FROM "
                              "information_schema.COLUMNS WHERE TABLE_SCHEMA='fe_sender_history' AND TABLE_NAME='" +
                              table + "' ORDER BY ORDINAL_POSITION");
    }
};

constexpr char const* recordText = " create table mms_reputation (\n MSISDN varchar(36) not null,\n Period int not "
                                   "null,\n Spam int not null, \n Infected int not null,\n Primary Key ( MSISDN,Period "
                                   ")) engine=InnoDB";
constexpr char const* blacklistText =
    " create table mms_blacklist (\n MSISDN varchar(36) not null,\n Primary Key ( MSISDN )) engine=InnoDB";

// The server's log shows statements without the blanks around them.
std::string trimmed(char const* text) {
    return std::string(text).substr(std::string(text).find_first_not_of(" \n"));
}

TEST_F(EndpointTablesTest, EmptyNameMakesAllFiveInThisOrderWithTheseTexts) {
    EXPECT_THAT(
        sent([&] { Database(address()).createTable(""); }),
        ElementsAre(
            HasSubstr("SET NAMES"), "DROP TABLE IF EXISTS mms_reputation", trimmed(recordText),
            "DROP TABLE IF EXISTS mms_exempt",
            "create table mms_exempt (\n MSISDN varchar(36) not null,\n Primary Key ( MSISDN )) engine=InnoDB",
            "DROP TABLE IF EXISTS mms_blacklist", trimmed(blacklistText), "DROP TABLE IF EXISTS mms_reputation_expiry",
            "create table mms_reputation_expiry (\n MSISDN varchar(36) not null,\n expiry int not null,\n Primary Key "
            "( "
            "MSISDN )) engine=InnoDB",
            "DROP TABLE IF EXISTS mms_repuation_score",
            "create table mms_repuation_score (\n MSISDN varchar(36) not null,\n score int not null,\n expiry int not "
            "null,\n Primary Key ( MSISDN )) engine=InnoDB"));
}

TEST_F(EndpointTablesTest, NameMakesThatTableOnly) {
    run({"insert into mms_blacklist values ('1')", "insert into mms_exempt values ('2')",
         "insert into mms_reputation values ('3', 1, 2, 3)"});
    Database database(address());
    EXPECT_THAT(sent([&] { database.createTable("mms_blacklist"); }),
                ElementsAre("DROP TABLE IF EXISTS mms_blacklist", trimmed(blacklistText)));
    EXPECT_THAT(blacklistRows(), IsEmpty());
    EXPECT_THAT(exemptRows(), ElementsAre("2"));
    EXPECT_THAT(recordRows(), ElementsAre("3|1|2|3"));
}

TEST_F(EndpointTablesTest, ColumnsKeysAndEngineAreThoseOfDatabasesInTheField) {
    EXPECT_THAT(columnsOf("mms_reputation"), ElementsAre("MSISDN|varchar(36)|NO|PRI", "Period|int(11)|NO|PRI",
                                                         "Spam|int(11)|NO|", "Infected|int(11)|NO|"));
    EXPECT_THAT(columnsOf("mms_reputation_expiry"), ElementsAre("MSISDN|varchar(36)|NO|PRI", "expiry|int(11)|NO|"));
    EXPECT_THAT(columnsOf("mms_exempt"), ElementsAre("MSISDN|varchar(36)|NO|PRI"));
    EXPECT_THAT(columnsOf("mms_blacklist"), ElementsAre("MSISDN|varchar(36)|NO|PRI"));
    EXPECT_THAT(columnsOf("mms_repuation_score"),
                ElementsAre("MSISDN|varchar(36)|NO|PRI", "score|int(11)|NO|", "expiry|int(11)|NO|"));
    EXPECT_THAT(server().query("SELECT DISTINCT ENGINE FROM information_schema.TABLES WHERE "
                               "TABLE_SCHEMA='fe_sender_history'"),
                ElementsAre("InnoDB"));
}

TEST_F(EndpointTablesTest, DroppingDropsTheRecordsTableOnly) {
    Database database(address());
    EXPECT_THAT(sent([&] { database.dropTable(); }), ElementsAre("drop table mms_reputation"));
    EXPECT_THAT(tables(), ElementsAre("mms_blacklist", "mms_exempt", "mms_repuation_score", "mms_reputation_expiry"));
}

void expectWrapped(std::optional<Exception> const& refused, std::string const& where, unsigned int line) {
    ASSERT_TRUE(refused.has_value()) << where;
    EXPECT_EQ(refused->where(), where);
    EXPECT_EQ(refused->code(), 4);
    EXPECT_EQ(refused->sourceFile(), "MMSReputationDatabase");
    EXPECT_EQ(refused->line(), line);
    ASSERT_NE(refused->cause(), nullptr);
    EXPECT_EQ(refused->cause()->where(), "Query::execute");
}

TEST_F(EndpointTablesTest, FailuresAreNamedAfterTheOperation) {
    Database database(address());
    database.dropTable();
    auto const dropped = refusalOf([&] { database.dropTable(); });
    expectWrapped(dropped, "EndpointReputation::Database::dropTable", 267);
    EXPECT_THAT(dropped->cause()->asString(), HasSubstr("error " + std::to_string(ER_BAD_TABLE_ERROR)));
    expectWrapped(refusalOf([&] { database.createTable("mms_reputation_score"); }),
                  "EndpointReputation::Database::createTable", 253);
    server().removeDatabases();
    expectWrapped(refusalOf([&] { database.createTable(""); }), "EndpointReputation::Database::createTable", 253);
}

TEST_F(EndpointTablesTest, WithoutADatabaseThereIsNoObject) {
    server().removeDatabases();
    EXPECT_THROW(Database{address()}, Exception);
}

} // namespace
} // namespace Vellum::MMSReputation
