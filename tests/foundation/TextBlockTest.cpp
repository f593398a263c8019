#include "foundation/TextBlock.h"

#include "tests/support/RandomSource.h"

#include <gtest/gtest.h>
#include <limits>
#include <sstream>
#include <string>

namespace Vellum {
namespace {

TEST(TextBlock, PiecesComeInTheirOrderWhenItIsFlushed) {
    std::ostringstream out;
    TextBlock text(out);
    text.makeRoom(100);
    text.append("('");
    text.appendEscaped("o'neil@example.org");
    text.append("', '");
    text.appendEscaped("");
    text.append("', ");
    text.appendNumber(std::numeric_limits<std::int64_t>::min());
    text.append(",");
    text.appendNumber(0);
    text.append("");
    EXPECT_EQ(out.str(), "");
    text.flush();
    EXPECT_EQ(out.str(), "('o\\'neil@example.org', '<>', -9223372036854775808,0");
    text.flush();
    text.append("!");
    text.flush();
    EXPECT_EQ(out.str(), "('o\\'neil@example.org', '<>', -9223372036854775808,0!") << "nothing comes twice";
}

TEST(TextBlock, RoomIsMadeExactlyWhenItIsNeeded) {
    std::ostringstream out;
    TextBlock text(out);
    std::string const most(TextBlock::capacity - 1, 'a');
    text.makeRoom(most.size());
    text.append(most);
    text.makeRoom(1);
    text.append("b");
    EXPECT_EQ(out.str(), "") << "all of it may be used";
    text.makeRoom(1);
    text.append("c");
    EXPECT_EQ(out.str(), most + "b");
    text.makeRoom(TextBlock::capacity);
    EXPECT_EQ(out.str(), most + "bc");
}

TEST(TextBlock, ManyRowsAreAsIfWrittenOneByOne) {
    RandomSource random;
    std::ostringstream out;
    std::string expected;
    TextBlock text(out);
    for (int row = 0; row < 20000; ++row) {
        std::string const piece(random.below(60), static_cast<char>('a' + random.below(26)));
        text.makeRoom(piece.size() + TextBlock::longestNumber);
        text.append(piece);
        text.appendNumber(row);
        expected += piece + std::to_string(row);
    }
    text.flush();
    EXPECT_EQ(out.str(), expected);
}

} // namespace
} // namespace Vellum
