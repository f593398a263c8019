#include "foundation/database/QueryLoadData.h"

#include "../support/PrivateMariaDb.h"
#include "../support/TemporaryDirectory.h"

#include <cstdio>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <memory>
#include <mysqld_error.h>
#include <unistd.h>

namespace Vellum::Database {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

using Rows = std::vector<std::string>;

PrivateMariaDb& server() {
    return PrivateMariaDb::shared();
}

class QueryLoadDataTest : public testing::Test {
  protected:
    QueryLoadDataTest() {
        server().freshDatabase();
        server().run({"create table score (number varchar(8) not null, score int not null, primary key (number))",
                      "insert into score values ('old', 1), ('older', 2)"},
                     "fe_sender_history");
        m_session = std::make_unique<Connection>(Connection::defaultAddress(), "fe_sender_history");
    }
    std::string file(std::string const& text) const {
        std::string const path = m_directory.path() + "/rows.txt";
        std::ofstream(path, std::ios::binary) << text;
        return path;
    }
    // Answers the number of lines.
    std::uint64_t load(std::string const& path) {
        return QueryLoadData(*m_session, "fe_sender_history", "score", path).rows();
    }
    static Rows rows() { return server().query("select * from score"); }
    // What the load is refused with.
    std::string refused(std::string const& path) {
        try {
            load(path);
        } catch (Exception const& thrown) {
            return thrown.asString();
        }
        return "not refused";
    }

    TemporaryDirectory m_directory;
    std::unique_ptr<Connection> m_session;
};

Rows const oldRows = {"old|1", "older|2"};

TEST_F(QueryLoadDataTest, RowsOfTheFileReplaceThoseOfTheTable) {
    EXPECT_EQ(load(file("a\t5\nb\t-6\n")), 2U);
    EXPECT_THAT(rows(), ElementsAre("a|5", "b|-6"));
}

TEST_F(QueryLoadDataTest, EmptyFileEmptiesTheTable) {
    EXPECT_EQ(load(file("")), 0U);
    EXPECT_THAT(rows(), IsEmpty());
}

TEST_F(QueryLoadDataTest, LaterRowWithTheSameKeyWins) {
    EXPECT_EQ(load(file("a\t5\nb\t6\na\t7\n")), 3U);
    EXPECT_THAT(rows(), ElementsAre("a|7", "b|6"));
}

TEST_F(QueryLoadDataTest, ValuesComeInAsTheyAre) {
    load(file("it's\t1\n\"\xff\x80%_\t2\n\t3\n-- \t4\n"));
    EXPECT_EQ(server().query("select hex(number), score from score order by score"),
              (Rows{"69742773|1", "22FF80255F|2", "|3", "2D2D20|4"}));
}

TEST_F(QueryLoadDataTest, EscapesAreTakenApart) {
    load(file("\\t\\n\\r\\0\\\\\\x\t1\na\\\tb\t2\n"));
    EXPECT_EQ(server().query("select hex(number) from score order by score"), (Rows{"090A0D005C78", "610962"}));
}

TEST_F(QueryLoadDataTest, ThousandsOfRowsArrive) {
    for (int const count : {999, 1000, 1001, 25000}) {
        std::string text;
        for (int n = 0; n < count; ++n) {
            text += std::to_string(n) + "\t" + std::to_string(n) + "\n";
        }
        EXPECT_EQ(load(file(text)), static_cast<std::uint64_t>(count));
        EXPECT_EQ(
            server().query("select count(*), sum(score), sum(number = score) from score"),
            Rows{std::to_string(count) + "|" + std::to_string(count * (count - 1L) / 2) + "|" + std::to_string(count)});
    }
}

TEST_F(QueryLoadDataTest, RefusedRowLeavesTheOldRowsThere) {
    EXPECT_THAT(refused(file("a\t5\ntoo long for it\t6\n")), HasSubstr("error " + std::to_string(ER_DATA_TOO_LONG)));
    EXPECT_EQ(rows(), oldRows);
    EXPECT_THAT(refused(file("a\t5\nb\n")), HasSubstr("error " + std::to_string(ER_WRONG_VALUE_COUNT_ON_ROW)));
    EXPECT_EQ(rows(), oldRows);
    EXPECT_THAT(refused(file("a\tfive\n")), testing::Not(HasSubstr("not refused")));
    EXPECT_EQ(rows(), oldRows);
    load(file("a\t5\n"));
    EXPECT_THAT(rows(), ElementsAre("a|5")) << "the session is as good as before";
}

TEST_F(QueryLoadDataTest, UnfinishedFileIsRefusedWithItsLine) {
    std::string const path = file("a\t5\nb\t6");
    EXPECT_EQ(refused(path), "QueryLoadData (code 4): " + path + "; line 2 does not end: the file was cut off");
    EXPECT_EQ(rows(), oldRows);
    EXPECT_THAT(refused(file("a\t5\nb\t6\\\n")), HasSubstr("line 2 ends within an escape"));
    EXPECT_EQ(rows(), oldRows);
    EXPECT_THAT(refused(file(std::string(QueryLoadData::longestLine + 100, 'x'))), HasSubstr("line 1 is too long"));
    EXPECT_EQ(rows(), oldRows);
}

TEST_F(QueryLoadDataTest, FileThatIsNoneIsRefused) {
    EXPECT_THAT(refused(m_directory.path() + "/absent"), HasSubstr("No such file or directory"));
    EXPECT_THAT(refused(m_directory.path()), HasSubstr("not a regular file"));
    std::string const target = file("a\t5\n");
    std::string const link = m_directory.path() + "/link";
    ASSERT_EQ(symlink(target.c_str(), link.c_str()), 0);
    EXPECT_THAT(refused(link), HasSubstr("Too many levels of symbolic links")) << "not followed";
    EXPECT_EQ(rows(), oldRows);
}

TEST_F(QueryLoadDataTest, UnknownTableAndOddNamesAreErrors) {
    std::string const path = file("a\t5\n");
    EXPECT_THROW(QueryLoadData(*m_session, "fe_sender_history", "absent", path), DatabaseException);
    EXPECT_THROW(QueryLoadData(*m_session, "fe_sender_history", "sc\nore", path), DatabaseException);
    server().run({"create table `o``dd` (a int)"}, "fe_sender_history");
    QueryLoadData(*m_session, "fe_sender_history", "o`dd", file("5\n"));
    EXPECT_THAT(server().query("select * from `o``dd`"), ElementsAre("5"));
}

} // namespace
} // namespace Vellum::Database
