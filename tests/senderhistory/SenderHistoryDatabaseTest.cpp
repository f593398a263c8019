#include "senderhistory/SenderHistoryDatabase.h"

#include "mmsreputation/MMSReputationDatabase.h"
#include "reputation/ReputationDatabase.h"
#include "tests/support/GreylistTables.h"
#include "tests/support/UnreachableServer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Vellum {
namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

constexpr char const* upgradeTuples = "ALTER table grey_list \n MODIFY ClientIPAddress varchar( 128 ) not null";
constexpr char const* upgradeExemptions = "ALTER table autoexempt MODIFY ClientIPAddressMask varchar( 128 ) not null";
constexpr char const* upgradeReputations =
    "ALTER table sender_reputation MODIFY ClientIPAddress varchar( 128 ) not null";
constexpr char const* upgradeStates =
    "ALTER table sender_reputation_state MODIFY ClientIPAddress varchar( 128 ) not null";

// All tables, with a row each; but what happens to the endpoint tables is told by a test of their own.
class SenderHistoryDatabaseTest : public GreyList::GreylistTables {
  protected:
    SenderHistoryDatabaseTest() {
        run({"insert into grey_list values ('192.0.2.0/24', 'a@b', 'c@d', 1, 2)",
             "insert into autoexempt values ('192.0.2.0/24', 'd', 3, 4)"});
        Reputation::Database(address()).createTable();
        run({"insert into sender_reputation values ('192.0.2.1', 5, 1, 2, 3, 4, 5)",
             "insert into sender_reputation_state values ('192.0.2.1', 2)"});
        MMSReputation::Database(address()).createTable("");
    }
    static Rows reputationRows() { return server().query("select * from sender_reputation"); }
    static Rows stateRows() { return server().query("select * from sender_reputation_state"); }
    static Rows tables() { return server().query("SHOW TABLES WHERE Tables_in_fe_sender_history NOT LIKE 'mms%'"); }
    // What changes the layout, of the statements that creating sends.
    static Rows changesOfCreating() {
        Rows changes;
        for (std::string const& statement : sent([] { senderHistoryDatabaseCreate(); })) {
            for (char const* const begin : {"CREATE", "create", "DROP", "drop", "ALTER"}) {
                if (statement.starts_with(begin) && statement.find(" mms_") == std::string::npos) {
                    changes.push_back(statement);
                }
            }
        }
        return changes;
    }
    static auto dropAndCreate(std::string const& table) {
        return std::pair("DROP TABLE IF EXISTS " + table, "create table " + table + " (");
    }
};

TEST_F(SenderHistoryDatabaseTest, WithoutTheDatabaseEverythingIsCreated) {
    server().removeDatabases();
    auto const changes = changesOfCreating();
    auto const [dropTuples, createTuples] = dropAndCreate("grey_list");
    auto const [dropExemptions, createExemptions] = dropAndCreate("autoexempt");
    auto const [dropReputations, createReputations] = dropAndCreate("sender_reputation");
    auto const [dropStates, createStates] = dropAndCreate("sender_reputation_state");
    EXPECT_THAT(changes,
                ElementsAre("CREATE DATABASE `fe_sender_history` CHARACTER SET latin1 COLLATE latin1_nopad_bin",
                            dropTuples, StartsWith(createTuples), dropExemptions, StartsWith(createExemptions),
                            dropReputations, StartsWith(createReputations), dropStates, StartsWith(createStates),
                            dropExemptions, StartsWith(createExemptions)));
    EXPECT_THAT(tables(), ElementsAre("autoexempt", "grey_list", "sender_reputation", "sender_reputation_state"));
    EXPECT_EQ(server().query("select @@collation_database").front(), "latin1_nopad_bin");
}

TEST_F(SenderHistoryDatabaseTest, WithAllTablesEachIsUpgradedAndNothingCreated) {
    EXPECT_THAT(changesOfCreating(), ElementsAre(upgradeTuples, upgradeExemptions, upgradeReputations, upgradeStates,
                                                 upgradeReputations, upgradeStates))
        << "each of the two upgrades both";
    EXPECT_EQ(tupleRows().size(), 1U);
    EXPECT_EQ(exemptionRows().size(), 1U);
    EXPECT_EQ(reputationRows().size(), 1U);
    EXPECT_EQ(stateRows().size(), 1U);
}

TEST_F(SenderHistoryDatabaseTest, ReputationTableThatIsMissingAloneIsCreatedAloneAndTheOtherKeepsItsRows) {
    auto const [dropReputations, createReputations] = dropAndCreate("sender_reputation");
    auto const [dropStates, createStates] = dropAndCreate("sender_reputation_state");
    run({"drop table sender_reputation"});
    EXPECT_THAT(changesOfCreating(), ElementsAre(upgradeTuples, upgradeExemptions, dropReputations,
                                                 StartsWith(createReputations), upgradeStates));
    EXPECT_THAT(reputationRows(), IsEmpty());
    EXPECT_EQ(stateRows().size(), 1U);

    run({"insert into sender_reputation values ('192.0.2.1', 5, 1, 2, 3, 4, 5)", "drop table sender_reputation_state"});
    EXPECT_THAT(changesOfCreating(), ElementsAre(upgradeTuples, upgradeExemptions, upgradeReputations, dropStates,
                                                 StartsWith(createStates)));
    EXPECT_THAT(stateRows(), IsEmpty());
    EXPECT_EQ(reputationRows().size(), 1U);
}

TEST_F(SenderHistoryDatabaseTest, ReputationTablesThatAreBothMissingAreCreatedTogether) {
    auto const [dropReputations, createReputations] = dropAndCreate("sender_reputation");
    auto const [dropStates, createStates] = dropAndCreate("sender_reputation_state");
    run({"drop table sender_reputation", "drop table sender_reputation_state"});
    EXPECT_THAT(changesOfCreating(),
                ElementsAre(upgradeTuples, upgradeExemptions, dropReputations, StartsWith(createReputations),
                            dropStates, StartsWith(createStates), dropReputations, StartsWith(createReputations),
                            dropStates, StartsWith(createStates)))
        << "once for each, of empty tables";
}

TEST_F(SenderHistoryDatabaseTest, MissingTableIsCreatedAndTheOtherUpgraded) {
    run({"drop table grey_list"});
    auto const [dropTuples, createTuples] = dropAndCreate("grey_list");
    EXPECT_THAT(changesOfCreating(), ElementsAre(dropTuples, StartsWith(createTuples), upgradeExemptions,
                                                 upgradeReputations, upgradeStates, upgradeReputations, upgradeStates));
    EXPECT_THAT(tupleRows(), IsEmpty());
    EXPECT_EQ(exemptionRows().size(), 1U);

    run({"insert into grey_list values ('192.0.2.0/24', 'a@b', 'c@d', 1, 2)", "drop table autoexempt"});
    auto const [dropExemptions, createExemptions] = dropAndCreate("autoexempt");
    EXPECT_THAT(changesOfCreating(), ElementsAre(upgradeTuples, dropExemptions, StartsWith(createExemptions),
                                                 upgradeReputations, upgradeStates, upgradeReputations, upgradeStates));
    EXPECT_EQ(tupleRows().size(), 1U);
    EXPECT_THAT(exemptionRows(), IsEmpty());
}

TEST_F(SenderHistoryDatabaseTest, EmptyDatabaseGetsAllTables) {
    run({"drop table grey_list", "drop table autoexempt", "drop table sender_reputation",
         "drop table sender_reputation_state"});
    for (int start = 0; start < 2; ++start) {
        senderHistoryDatabaseCreate();
        EXPECT_THAT(tables(), ElementsAre("autoexempt", "grey_list", "sender_reputation", "sender_reputation_state"));
    }
}

TEST_F(SenderHistoryDatabaseTest, TableWhoseNameDiffersInLetterCaseIsAnotherOne) {
    run({"rename table grey_list to Grey_List", "create table AUTOEXEMPT (a int)",
         "rename table sender_reputation_state to SENDER_REPUTATION_STATE"});
    auto const [dropTuples, createTuples] = dropAndCreate("grey_list");
    auto const [dropStates, createStates] = dropAndCreate("sender_reputation_state");
    EXPECT_THAT(changesOfCreating(), ElementsAre(dropTuples, StartsWith(createTuples), upgradeExemptions,
                                                 upgradeReputations, dropStates, StartsWith(createStates)));
    EXPECT_THAT(server().query("select TABLE_NAME from information_schema.TABLES where TABLE_SCHEMA = "
                               "'fe_sender_history' and TABLE_NAME not like 'mms%' order by binary TABLE_NAME"),
                ElementsAre("AUTOEXEMPT", "Grey_List", "SENDER_REPUTATION_STATE", "autoexempt", "grey_list",
                            "sender_reputation", "sender_reputation_state"));
    EXPECT_EQ(reputationRows().size(), 1U);
    EXPECT_THAT(tupleRows(), IsEmpty());
    EXPECT_EQ(server().query("select * from Grey_List").size(), 1U) << "untouched";
}

TEST_F(SenderHistoryDatabaseTest, FirstFailurePassesOnAndLaterTablesAreNotTouched) {
    run({"drop table grey_list", "drop table autoexempt", "create view grey_list as select 1 as ClientIPAddress"});
    auto const refused = refusalOf([] { senderHistoryDatabaseCreate(); });
    ASSERT_TRUE(refused.has_value());
    EXPECT_EQ(refused->where(), "GlRecordDatabase::upgradeTable");
    EXPECT_EQ(refused->line(), 250U);
    EXPECT_THAT(tables(), ElementsAre("grey_list", "sender_reputation", "sender_reputation_state"));
}

TEST_F(SenderHistoryDatabaseTest, ServerThatIsAwayPassesOn) {
    UnreachableServer const away;
    auto const refused = refusalOf([] { senderHistoryDatabaseCreate(); });
    ASSERT_TRUE(refused.has_value());
    EXPECT_EQ(refused->where(), "Connection");
}

TEST_F(SenderHistoryDatabaseTest, AccountThatMayNotCreateTheDatabaseIsTold) {
    server().removeDatabases();
    server().run({"CREATE USER 'weak'@'127.0.0.1' IDENTIFIED BY 'w'",
                  "GRANT SELECT ON fe_sender_history.* TO 'weak'@'127.0.0.1'"});
    Database::Server account = server().account();
    account.user = "weak";
    account.password = "w";
    InstalledServer const installed(account);
    auto const refused = refusalOf([] { senderHistoryDatabaseCreate(); });
    ASSERT_TRUE(refused.has_value());
    EXPECT_THAT(refused->asString(), AllOf(StartsWith("Connection::dbCreate (code 4)"), HasSubstr("Access denied")));
    server().run({"DROP USER 'weak'@'127.0.0.1'"});
}

TEST_F(SenderHistoryDatabaseTest, RepairSaysWhatItChangedAndIsSilentWhenEverythingFits) {
    run({"alter table grey_list drop ExpiryTime",
         "alter table autoexempt modify Domain varchar(128) character set utf8mb4 not null"});
    senderHistoryDatabaseRepair();
    auto const lines = m_log.lines();
    ASSERT_EQ(lines.size(), 2U);
    for (auto const& line : lines) {
        EXPECT_FALSE(line.isRecord);
        EXPECT_EQ(line.severity, Logger::Severity::warning);
    }
    EXPECT_EQ(lines[0].text, "database fe_sender_history: table grey_list had no column ExpiryTime: added, its tuples "
                             "count as expired");
    EXPECT_THAT(lines[1].text, StartsWith("database fe_sender_history: table autoexempt took texts"));
    EXPECT_THAT(tupleRows(), ElementsAre("192.0.2.0/24|a@b|c@d|1|0"));
    m_log.clear();
    senderHistoryDatabaseRepair();
    EXPECT_TRUE(m_log.lines().empty());
}

TEST_F(SenderHistoryDatabaseTest, OldDatabaseIsBroughtUpToDateByCreatingAndRepairing) {
    server().run({"DROP DATABASE fe_sender_history",
                  "CREATE DATABASE fe_sender_history CHARACTER SET utf8mb4 COLLATE utf8mb4_general_ci"});
    for (int start = 0; start < 3; ++start) { // of the daemon
        m_log.clear();
        senderHistoryDatabaseCreate();
        senderHistoryDatabaseRepair();
        EXPECT_EQ(m_log.lines().size(), start == 0 ? 4U : 0U) << "one for each table";
    }
    run({"insert into grey_list values ('192.0.2.0/24', 'a@b', 'c@d', 1, 2), ('192.0.2.0/24', 'A@b', 'c@d', 1, 2)"});
    EXPECT_EQ(tupleRows().size(), 2U);
}

TEST_F(SenderHistoryDatabaseTest, RepairWithoutTheDatabaseThrows) {
    server().removeDatabases();
    EXPECT_THROW(senderHistoryDatabaseRepair(), Database::DatabaseException);
}

} // namespace
} // namespace Vellum
