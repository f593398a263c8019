#include "foundation/database/Query.h"

#include "../support/PrivateMariaDb.h"
#include "foundation/database/RowParser.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <mysql.h>

namespace {

bool losesResults = false;

} // namespace

// Stands before the client library's: as when it finds no memory for a result, it may answer with none and no error.
extern "C" __attribute__((visibility("default"))) MYSQL_RES* STDCALL mysql_store_result(MYSQL* mysql) {
    using StoreResult = MYSQL_RES*(STDCALL*)(MYSQL*);
    static auto const real = reinterpret_cast<StoreResult>(dlsym(RTLD_NEXT, "mysql_store_result"));
    MYSQL_RES* const result = real(mysql);
    if (!losesResults) {
        return result;
    }
    mysql_free_result(result);
    return nullptr;
}

namespace Vellum::Database {
namespace {

class NumberRow : public RowImpl {
  public:
    bool parse(void*, void*, void*) override { return true; }
};

class MissingResultTest : public testing::Test {
  protected:
    void SetUp() override { PrivateMariaDb::shared().freshDatabase(); }
    void TearDown() override { losesResults = false; }

    Connection& connection() {
        if (m_connection == nullptr) {
            m_connection = std::make_unique<Connection>(Connection::defaultAddress(), "fe_sender_history");
        }
        return *m_connection;
    }
    std::size_t rowsOf(std::string const& text) {
        RowContainer rows;
        FeRowParser<NumberRow> parser(rows);
        Query query(connection(), &parser, true);
        query << text;
        query.execute();
        return rows.rows().size();
    }

  private:
    std::unique_ptr<Connection> m_connection;
};

TEST_F(MissingResultTest, IsAFailureAndNoEmptyTable) {
    rowsOf("create table numbers (n int);");
    EXPECT_EQ(rowsOf("select * from numbers;"), 0U);
    losesResults = true;
    try {
        rowsOf("select * from numbers;");
        FAIL() << "taken for a table without rows";
    } catch (DatabaseException const& failed) {
        EXPECT_EQ(failed.message(),
                  "the client library failed without an error number, as for want of memory, with vellum@127.0.0.1:" +
                      std::to_string(PrivateMariaDb::shared().port()) + "; statement: select * from numbers");
        EXPECT_EQ(failed.serverError(), 0U);
        EXPECT_TRUE(failed.worthRetrying());
        EXPECT_FALSE(failed.connectionLost());
    }
    losesResults = false;
    EXPECT_EQ(rowsOf("select 1 union select 2;"), 2U) << "the connection goes on";
}

TEST_F(MissingResultTest, OfAStatementThatHasNoneIsNone) {
    losesResults = true;
    rowsOf("create table numbers (n int);");
    rowsOf("insert into numbers values (1), (2);");
    losesResults = false;
    EXPECT_EQ(rowsOf("select * from numbers;"), 2U);
}

} // namespace
} // namespace Vellum::Database
