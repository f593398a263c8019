// What bringing the database up does to the endpoint tables.
#include "senderhistory/SenderHistoryDatabase.h"

#include "mmsreputation/MMSReputationDatabase.h"
#include "tests/support/CapturingLogger.h"
#include "tests/support/DatabaseTables.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Vellum {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

// All five, with a row each, and those of the other families.
class EndpointTablesAtStart : public testing::Test, public DatabaseTables {
  protected:
    EndpointTablesAtStart() {
        senderHistoryDatabaseCreate();
        for (std::string const& table : m_tables) {
            fill(table);
        }
    }
    static void fill(std::string const& table) {
        char const* const rest = table == "mms_reputation"          ? ", 2, 3, 4)"
                                 : table == "mms_reputation_expiry" ? ", 2)"
                                 : table == "mms_repuation_score"   ? ", 2, 3)"
                                                                    : ")";
        run({"insert into " + table + " values ('1'" + rest});
    }
    static std::size_t rowsIn(std::string const& table) { return server().query("select * from " + table).size(); }
    // What changes their layout, of the statements that creating sends.
    static Rows changesOfCreating() {
        Rows changes;
        for (std::string const& statement : sent([] { senderHistoryDatabaseCreate(); })) {
            if (statement.find("mms_") != std::string::npos) {
                changes.push_back(statement);
            }
        }
        return changes;
    }
    static auto dropped(std::string const& table) { return "DROP TABLE IF EXISTS " + table; }
    static auto created(std::string const& table) { return StartsWith("create table " + table + " (\n"); }
    void expectAllTables() const { EXPECT_THAT(server().query("SHOW TABLES"), testing::IsSupersetOf(m_tables)); }

    CapturingLogger m_log;
    Rows const m_tables = {"mms_reputation", "mms_reputation_expiry", "mms_exempt", "mms_blacklist",
                           "mms_repuation_score"};
};

TEST_F(EndpointTablesAtStart, WithAllTablesNothingIsTouched) {
    EXPECT_THAT(changesOfCreating(), IsEmpty());
    for (std::string const& table : m_tables) {
        EXPECT_EQ(rowsIn(table), 1U) << table;
    }
}

TEST_F(EndpointTablesAtStart, OneThatIsMissingIsMadeAloneAndCostsTheOthersNothing) {
    for (std::string const& missing : m_tables) {
        SCOPED_TRACE(missing);
        run({"drop table " + missing});
        EXPECT_THAT(changesOfCreating(), ElementsAre(dropped(missing), created(missing)));
        for (std::string const& table : m_tables) {
            EXPECT_EQ(rowsIn(table), table == missing ? 0U : 1U) << table;
        }
        fill(missing);
    }
}

TEST_F(EndpointTablesAtStart, TheOnlyOneThatIsThereKeepsItsRows) {
    run({"drop table mms_reputation, mms_reputation_expiry, mms_exempt, mms_repuation_score"});
    senderHistoryDatabaseCreate();
    expectAllTables();
    EXPECT_EQ(rowsIn("mms_blacklist"), 1U);
}

TEST_F(EndpointTablesAtStart, WithoutAnyAllAreMadeAtOnce) {
    run({"drop table mms_reputation, mms_reputation_expiry, mms_exempt, mms_blacklist, mms_repuation_score"});
    EXPECT_THAT(changesOfCreating(),
                ElementsAre(dropped("mms_reputation"), created("mms_reputation"), dropped("mms_exempt"),
                            created("mms_exempt"), dropped("mms_blacklist"), created("mms_blacklist"),
                            dropped("mms_reputation_expiry"), created("mms_reputation_expiry"),
                            dropped("mms_repuation_score"), created("mms_repuation_score")));
    expectAllTables();
}

TEST_F(EndpointTablesAtStart, WithoutTheDatabaseTheyAreMadeLast) {
    server().removeDatabases();
    Rows const all = sent([] { senderHistoryDatabaseCreate(); });
    expectAllTables();
    EXPECT_THAT(all.back(), created("mms_repuation_score"));
}

TEST_F(EndpointTablesAtStart, TableWhoseNameDiffersInLetterCaseIsAnotherOne) {
    run({"rename table mms_blacklist to MMS_Blacklist"});
    EXPECT_THAT(changesOfCreating(), ElementsAre(dropped("mms_blacklist"), created("mms_blacklist")));
    EXPECT_EQ(rowsIn("MMS_Blacklist"), 1U) << "untouched";
    EXPECT_EQ(rowsIn("mms_blacklist"), 0U);
}

} // namespace
} // namespace Vellum
