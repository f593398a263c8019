#include "foundation/database/BatchedInsert.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <sstream>

namespace Vellum::Database {
namespace {

BatchedInsert::Texts const tuples{.open = "INSERT INTO grey_list VALUES", .end = ";\n"};
BatchedInsert::Texts const reputation{.open = "\nINSERT INTO sender_reputation VALUES"};

// The script of rows 0 to count - 1, each written as "\n(i)".
std::string script(BatchedInsert::Texts const& texts, std::uint32_t count) {
    std::ostringstream out;
    BatchedInsert batches(out, texts);
    for (std::uint32_t row = 0; row < count; ++row) {
        EXPECT_EQ(batches.beforeRow(), row % 1000 == 0) << row;
        out << "\n(" << row << ')';
    }
    batches.finish();
    EXPECT_EQ(batches.rows(), count);
    return out.str();
}

std::string rows(std::uint32_t first, std::uint32_t last) {
    std::string text;
    for (std::uint32_t row = first; row <= last; ++row) {
        text += (row == first ? "\n(" : ",\n(") + std::to_string(row) + ')';
    }
    return text;
}

TEST(BatchedInsert, TextsForOneWhoWritesElsewhere) {
    std::ostringstream out;
    BatchedInsert batches(out, reputation);
    std::string text;
    for (std::uint32_t row = 0; row < 2001; ++row) {
        std::string_view const before = batches.textBeforeRow();
        EXPECT_LE(before.size(), batches.longestBeforeRow());
        text += std::string(before) + "\n(" + std::to_string(row) + ')';
    }
    EXPECT_EQ(out.str(), "");
    batches.finish();
    EXPECT_EQ(text + out.str(), script(reputation, 2001));
}

TEST(BatchedInsert, NoRowWritesNothing) {
    EXPECT_EQ(script(tuples, 0), "");
    EXPECT_EQ(script(reputation, 0), "");
}

TEST(BatchedInsert, OneStatementHoldsAThousandRows) {
    EXPECT_EQ(script(tuples, 1), "INSERT INTO grey_list VALUES\n(0);\n");
    EXPECT_EQ(script(tuples, 1000), "INSERT INTO grey_list VALUES" + rows(0, 999) + ";\n");
}

TEST(BatchedInsert, TheNextRowBeginsAnotherStatementAfterACommit) {
    EXPECT_EQ(script(tuples, 1001),
              "INSERT INTO grey_list VALUES" + rows(0, 999) + ";\ncommit;\nINSERT INTO grey_list VALUES\n(1000);\n");
}

TEST(BatchedInsert, ScriptsThatCommitAfterTheLastBatchToo) {
    EXPECT_EQ(script(reputation, 2500), "\nINSERT INTO sender_reputation VALUES" + rows(0, 999) +
                                            ";\ncommit;\n\nINSERT INTO sender_reputation VALUES" + rows(1000, 1999) +
                                            ";\ncommit;\n\nINSERT INTO sender_reputation VALUES" + rows(2000, 2499) +
                                            ";\ncommit;\n");
}

TEST(BatchedInsert, RowsMayBringTheirOwnSeparator) {
    EXPECT_EQ(script({.open = "INSERT", .separator = "", .end = ";"}, 3), "INSERT\n(0)\n(1)\n(2);");
}

} // namespace
} // namespace Vellum::Database
