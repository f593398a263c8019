#include "foundation/database/Query.h"

#include "../support/PrivateMariaDb.h"
#include "foundation/database/QueryTableNames.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <limits>
#include <mysqld_error.h>

namespace Vellum::Database {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

PrivateMariaDb& server() {
    return PrivateMariaDb::shared();
}

class NameRow : public RowImpl {
  public:
    bool parse(void* handle, void* result, void* row) override {
        if (db_result_field_length(result, 0) == 0) {
            throw Exception("NameRow", Exception::failure, "QueryTest", 17).stringParameter("empty name");
        }
        name.assign(db_result_get_value(handle, result, row, 0), db_result_field_length(result, 0));
        return true;
    }
    std::string name;
};

class QueryTest : public testing::Test {
  protected:
    void SetUp() override { server().freshDatabase(); }

    // The test's connection; made on first use, so that a test may change the server before.
    Connection& connection() {
        if (m_connection == nullptr) {
            m_connection = std::make_unique<Connection>(Connection::defaultAddress(), "fe_sender_history");
        }
        return *m_connection;
    }
    void execute(std::string const& text) {
        Query query(connection(), nullptr, true);
        query << text;
        query.execute();
    }
    std::vector<std::string> names(std::string const& text) {
        RowContainer rows;
        FeRowParser<NameRow> parser(rows);
        Query query(connection(), &parser, true);
        query << text;
        query.execute();
        return namesIn(rows);
    }
    static std::vector<std::string> namesIn(RowContainer const& rows) {
        std::vector<std::string> all;
        for (Ref<RowImpl> const& row : rows.rows()) {
            all.push_back(dynamic_cast<NameRow const&>(*row).name);
        }
        return all;
    }
    DatabaseException failureOf(std::string const& text) {
        try {
            execute(text);
        } catch (DatabaseException const& failure) {
            return failure;
        }
        ADD_FAILURE() << "ran: " << text;
        return {"", 0, ""};
    }

  private:
    std::unique_ptr<Connection> m_connection;
};

// A text as an SQL literal.
std::string literal(std::string const& bytes) {
    std::string text = "'";
    for (char const c : bytes) {
        if (c == '\'' || c == '\\') {
            text += '\\';
        }
        text += c;
    }
    return text + '\'';
}

TEST_F(QueryTest, AwkwardBytesComeBackAsTheyWent) {
    std::vector<std::string> const texts = {
        "it's", "say \"so\"", "back\\slash", "100 %",         "a\x01z",           "tab\tline\nreturn\r",
        "\x1a", "\xc3\xa9",   "\xff\xfe",    "\xc3",          "\xf0\x9f\x98\x80", "Case",
        "case", "CASE",       "blank",       "blank ",        "blank  ",          " blank",
        "\x7f", "\x80",       "semi;colon",  "-- no comment", "/* nor this */",   "`tick`",
        "<>",
    };
    execute("create table t (\n Name varchar( 128 ) not null,\n Primary Key ( Name ))\n engine=InnoDB;");
    for (std::string const& text : texts) {
        execute("INSERT INTO t VALUES(" + literal(text) + ");");
    }
    for (std::string const& text : texts) {
        EXPECT_THAT(names("select * from t where Name = " + literal(text) + ';'), ElementsAre(text));
    }
    EXPECT_EQ(names("select * from t;").size(), texts.size());
}

TEST_F(QueryTest, EveryByteIsAKeyOfItsOwn) {
    execute("create table t (Name varchar(128) not null, n int not null, primary key (Name)) engine=InnoDB");
    for (int byte = 1; byte < 256; ++byte) { // a NUL would end the text
        execute("INSERT INTO t VALUES(" + literal(std::string(1, static_cast<char>(byte))) + ',' +
                std::to_string(byte) + ')');
    }
    std::vector<std::string> const found = names("select * from t order by n");
    ASSERT_EQ(found.size(), 255U);
    for (int byte = 1; byte < 256; ++byte) {
        EXPECT_EQ(found[static_cast<std::size_t>(byte) - 1], std::string(1, static_cast<char>(byte)));
    }
}

TEST_F(QueryTest, ColumnsOfACreatedDatabaseStayVarchar) {
    execute("create table t (a varchar(128) not null)");
    EXPECT_THAT(server().query("SELECT column_type, character_set_name, collation_name FROM information_schema.columns "
                               "WHERE table_schema = 'fe_sender_history'"),
                ElementsAre("varchar(128)|latin1|latin1_nopad_bin"));
}

TEST_F(QueryTest, TextAtTheColumnsWidthFitsAndOneByteMoreIsAnError) {
    execute("create table t (a varchar(128) not null) engine=InnoDB");
    execute("INSERT INTO t VALUES('" + std::string(128, 'x') + "')");
    EXPECT_EQ(failureOf("INSERT INTO t VALUES('" + std::string(129, 'x') + "')").serverError(),
              unsigned(ER_DATA_TOO_LONG));
    EXPECT_EQ(failureOf("INSERT INTO t VALUES('" + std::string(128, 'x') + "y')").serverError(),
              unsigned(ER_DATA_TOO_LONG));
    EXPECT_EQ(names("select * from t").size(), 1U);
}

TEST_F(QueryTest, NumberOutOfRangeIsAnErrorAndNeverClamped) {
    execute("create table t (a int not null) engine=InnoDB");
    execute("INSERT INTO t VALUES(2147483647)");
    EXPECT_EQ(failureOf("INSERT INTO t VALUES(2147483648)").serverError(), unsigned(ER_WARN_DATA_OUT_OF_RANGE));
    EXPECT_THAT(names("select * from t"), ElementsAre("2147483647"));
}

TEST_F(QueryTest, SecondStatementIsRefusedBeforeTheFirstRuns) {
    DatabaseException const refused = failureOf("create table a (n int); create table b (n int);");
    EXPECT_EQ(refused.serverError(), 0U);
    EXPECT_THAT(refused.asString(), HasSubstr("2 statements in a query, expected one"));
    EXPECT_THAT(QueryTableNames(connection()).names(), IsEmpty());
}

TEST_F(QueryTest, SeveralStatementsRunOneByOneOnceEnabled) {
    connection().enableMultipleStatementsPerQuery();
    execute("DROP TABLE IF EXISTS t;\ncreate table t (\n a int not null)\n engine=InnoDB;" + std::string(1, '\0'));
    EXPECT_THAT(QueryTableNames(connection()).names(), ElementsAre("t"));
    execute(";\n;INSERT INTO t VALUES(1);\n;\nINSERT INTO t VALUES(2)\n;\n");
    EXPECT_THAT(names("select * from t"), ElementsAre("1", "2"));
}

TEST_F(QueryTest, FirstFailureEndsTheText) {
    connection().enableMultipleStatementsPerQuery();
    execute("create table t (a int not null, primary key (a)) engine=InnoDB");
    DatabaseException const failure =
        failureOf("INSERT INTO t VALUES(1);INSERT INTO t VALUES(1);INSERT INTO t VALUES(2);");
    EXPECT_EQ(failure.serverError(), unsigned(ER_DUP_ENTRY));
    EXPECT_FALSE(failure.worthRetrying());
    EXPECT_EQ(failure.asString(),
              "Query::execute (code 4): error 1062 from vellum@127.0.0.1:" + std::to_string(server().port()) +
                  ": Duplicate entry '1' for key 'PRIMARY'; statement: INSERT INTO t VALUES(1)");
    EXPECT_THAT(names("select * from t"), ElementsAre("1")) << "each statement is a transaction of its own";
}

TEST_F(QueryTest, TextWithoutAStatementIsRefused) {
    EXPECT_THAT(failureOf("").asString(), HasSubstr("no statement"));
    EXPECT_THAT(failureOf(" ; -- nothing\n;").asString(), HasSubstr("no statement"));
}

TEST_F(QueryTest, OpenQuoteIsRefusedHere) {
    EXPECT_THAT(failureOf("select 'abc").asString(), HasSubstr("inside a quoted text opened on line 1"));
}

TEST_F(QueryTest, AffectedRowsAreCountedOverAllStatements) {
    connection().enableMultipleStatementsPerQuery();
    Query query(connection(), nullptr, true);
    query << "create table t (a int); insert into t values (1),(2),(3); delete from t where a > 1; select * from t;";
    query.execute();
    EXPECT_EQ(query.affectedRows(), 5U);
}

TEST_F(QueryTest, RowsComeInResultOrder) {
    EXPECT_THAT(names("select 'b' union all select 'a' union all select 'c'"), ElementsAre("b", "a", "c"));
    EXPECT_THAT(names("select 'a' from dual where 1 = 0"), IsEmpty());
    EXPECT_THAT(names("do 1"), IsEmpty()) << "a statement without a result";
}

TEST_F(QueryTest, RefusedRowPassesUnchangedAndIsNamed) {
    RowContainer rows;
    FeRowParser<NameRow> parser(rows);
    Query query(connection(), &parser, true);
    query << "select 'a' union all select 'b' union all select '' union all select 'd'";
    try {
        query.execute();
        FAIL() << "accepted";
    } catch (DatabaseException const&) {
        FAIL() << "wrapped";
    } catch (Exception const& refused) {
        EXPECT_EQ(refused.asString(), "NameRow (code 4, QueryTest:17): empty name");
    }
    EXPECT_EQ(parser.failedRow(), 2);
    EXPECT_THAT(namesIn(rows), ElementsAre("a", "b"));
    EXPECT_THAT(names("select 'x'"), ElementsAre("x")) << "the connection is ready for the next query";
    EXPECT_FALSE(FeRowParser<NameRow>(rows).failedRow().has_value());
}

TEST_F(QueryTest, ParserThatThrowsInTheMiddleOfACallLeavesTheConnectionReady) {
    server().run({"CREATE PROCEDURE two() BEGIN SELECT ''; SELECT 'second'; END"}, "fe_sender_history");
    EXPECT_THROW(names("call two()"), Exception);
    EXPECT_THAT(names("select 'x'"), ElementsAre("x"));
}

// Everything a parser can ask of a result.
class Prober : public RowParser {
  public:
    void parse(void* handle, void* result) override {
        EXPECT_EQ(db_result_row_num(handle, result), 3);
        EXPECT_EQ(db_result_fields_num(handle, result), 3);
        EXPECT_EQ(db_result_field_length(result, 0), 0U) << "no current row yet";
        void* const last = db_result_fetch_row(result, 2);
        EXPECT_STREQ(db_result_get_value(handle, result, last, 0), "ccc");
        EXPECT_EQ(db_result_field_length(result, 0), 3U);
        void* const first = db_result_fetch_row(result, 0);
        EXPECT_STREQ(db_result_get_value(handle, result, first, 0), "a");
        EXPECT_STREQ(db_result_get_value(handle, result, first, 1), "") << "SQL NULL";
        EXPECT_EQ(db_result_field_length(result, 1), 0U);
        EXPECT_STREQ(db_result_get_value(handle, result, first, 2), "");
        void* const second = db_result_fetch_row(result, 1);
        EXPECT_EQ(std::string(db_result_get_value(handle, result, second, 0), db_result_field_length(result, 0)),
                  std::string("b\0b", 3));
        EXPECT_EQ(db_result_fetch_row(result, 3), nullptr);
        EXPECT_EQ(db_result_fetch_row(result, -1), nullptr);
        EXPECT_EQ(db_result_get_value(handle, result, second, 3), nullptr);
        EXPECT_EQ(db_result_get_value(handle, result, second, -1), nullptr);
        EXPECT_EQ(db_result_get_value(handle, result, nullptr, 0), nullptr);
        EXPECT_EQ(db_result_field_length(result, 3), 0U);
        EXPECT_STREQ(db_result_get_value(handle, result, first, 0), "a") << "values live as long as the result";
        ++calls;
    }
    int calls = 0;
};

TEST_F(QueryTest, ResultAccessAnswersEveryQuestion) {
    Prober prober;
    Query query(connection(), &prober, true);
    query << "select 'a', NULL, '' union all select 'b\\0b', 1, 2 union all select 'ccc', 3, 4";
    query.execute();
    EXPECT_EQ(prober.calls, 1);
}

TEST(ResultAccess, NullHandlesAnswerNothing) {
    EXPECT_EQ(db_result_row_num(nullptr, nullptr), 0);
    EXPECT_EQ(db_result_fetch_row(nullptr, 0), nullptr);
    EXPECT_EQ(db_result_fields_num(nullptr, nullptr), 0);
    EXPECT_EQ(db_result_field_length(nullptr, 0), 0U);
    EXPECT_EQ(db_result_get_value(nullptr, nullptr, nullptr, 0), nullptr);
    RowContainer rows;
    FeRowParser<NameRow>(rows).parse(nullptr, nullptr);
    EXPECT_TRUE(rows.rows().empty());
}

TEST_F(QueryTest, TableNamesAreExact) {
    execute("create table grey_list (a int)");
    execute("create table Grey_List (a int)");
    execute("create table `odd name` (a int)");
    EXPECT_THAT(QueryTableNames(connection()).names(), ElementsAre("Grey_List", "grey_list", "odd name"));
    execute("select * from " + TableName("odd name", true).name());
    EXPECT_EQ(TableName("autoexempt", false).name(), "autoexempt");
    EXPECT_EQ(TableName("odd`name", true).name(), "`odd``name`");
}

TEST_F(QueryTest, ServerThatDiesDuringAQueryIsALostConnection) {
    Connection& used = connection();
    server().kill();
    try {
        Query query(used, nullptr, true);
        query << "select 1";
        query.execute();
        ADD_FAILURE() << "answered";
    } catch (DatabaseException const& failure) {
        EXPECT_TRUE(failure.connectionLost());
        EXPECT_TRUE(failure.worthRetrying());
    }
    server().start();
}

} // namespace
} // namespace Vellum::Database
