#include "daemon/LogValue.h"

#include <gtest/gtest.h>

#include <string>

namespace Vellum::Daemon {
namespace {

std::string written(std::string_view value) {
    std::string out;
    appendLogValue(out, value);
    return out;
}

TEST(LogValue, PrintableTextIsWrittenAsItIs) {
    EXPECT_EQ(written("example.org"), "example.org");
    EXPECT_EQ(written("<>"), "<>");
    EXPECT_EQ(written("a=b+c@[192.0.2.1]"), "a=b+c@[192.0.2.1]");
    EXPECT_EQ(written("!~"), "!~");
}

TEST(LogValue, AnythingElseIsQuoted) {
    EXPECT_EQ(written(""), "\"\"");
    EXPECT_EQ(written("a b"), "\"a b\"");
    EXPECT_EQ(written("a, client_address=192.0.2.1"), "\"a, client_address=192.0.2.1\"");
    EXPECT_EQ(written("\"a b\"@example.org"), R"("\"a b\"@example.org")");
    EXPECT_EQ(written("a\\n"), R"("a\\n")");
    EXPECT_EQ(written("a\nb\r\t\x01\x7f"), R"("a\nb\r\t\x01\x7f")");
    EXPECT_EQ(written(std::string_view("\0", 1)), R"("\x00")");
}

TEST(LogValue, Utf8IsReadableAndInvalidBytesAreEscaped) {
    EXPECT_EQ(written("j\xc3\xb6@example.org"), "\"j\xc3\xb6@example.org\"");
    EXPECT_EQ(written("j\xc3@\xff"), R"("j\xc3@\xff")");
    EXPECT_EQ(written("a\xe2\x80\xa8"
                      "b"),
              R"("a\xe2\x80\xa8b")")
        << "a line separator";
}

} // namespace
} // namespace Vellum::Daemon
