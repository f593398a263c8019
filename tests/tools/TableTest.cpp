#include "tools/vellumctl/Table.h"

#include "tests/tools/OutputFile.h"

#include <gtest/gtest.h>

namespace Vellum::Tools {
namespace {

TEST(Table, ColumnsAreAsWideAsTheirWidestCell) {
    OutputFile file;
    Table table(file.output, {"A", "LONGER", "LAST"}, true);
    table.row({"first", "1", "x"});
    table.row({"2", "2", "longest of all"});
    table.finish();
    file.output.flush();
    EXPECT_EQ(file.text(), "A      LONGER  LAST\n"
                           "first  1       x\n"
                           "2      2       longest of all\n");
}

TEST(Table, WithoutHeaderTitlesTakeNoRoom) {
    OutputFile file;
    Table table(file.output, {"A LONG TITLE", "B"}, false);
    table.row({"1", "2"});
    table.finish();
    file.output.flush();
    EXPECT_EQ(file.text(), "1  2\n");
}

TEST(Table, WithoutRowsIsItsHeader) {
    OutputFile file;
    Table(file.output, {"A", "B"}, true).finish();
    Table(file.output, {"A", "B"}, false).finish();
    file.output.flush();
    EXPECT_EQ(file.text(), "A  B\n");
}

TEST(Table, CharactersOfSeveralBytesTakeOneColumn) {
    OutputFile file;
    Table table(file.output, {"A", "B"}, true);
    table.row({"\xc3\xa9t\xc3\xa9", "x"});
    table.row({"abc", "y"});
    table.finish();
    file.output.flush();
    EXPECT_EQ(file.text(), "A    B\n\xc3\xa9t\xc3\xa9  x\nabc  y\n");
}

TEST(Table, LaterRowsKeepToTheColumnsOfTheFirst) {
    OutputFile file;
    Table table(file.output, {"A", "B"}, false);
    for (std::size_t row = 0; row < Table::rowsMeasured; ++row) {
        file.output.flush();
        EXPECT_EQ(file.text(), "") << row;
        table.row({"abc", "x"});
    }
    file.output.flush();
    std::string measured;
    for (std::size_t row = 0; row < Table::rowsMeasured; ++row) {
        measured += "abc  x\n";
    }
    EXPECT_EQ(file.text(), measured);
    table.row({"a", "y"});
    table.row({"too long", "z"});
    table.finish();
    file.output.flush();
    EXPECT_EQ(file.text(), measured + "a    y\ntoo long  z\n");
}

} // namespace
} // namespace Vellum::Tools
