#include "foundation/Buffer.h"

#include "foundation/Exception.h"

#include <algorithm>
#include <cstring>
#include <gtest/gtest.h>

namespace Vellum {
namespace {

TEST(Buffer, KeepsItsOwnCopyWhateverTheFlag) {
    for (bool const copy : {true, false}) {
        char bytes[] = {'a', '\0', 'b'};
        Buffer const buffer(bytes, sizeof bytes, copy);
        bytes[0] = 'x';
        EXPECT_EQ(buffer.view(), std::string_view("a\0b", 3));
    }
}

TEST(Buffer, NullIsAllowedWithoutLengthOnly) {
    EXPECT_EQ(Buffer(nullptr, 0, true).length(), 0U);
    EXPECT_THROW(Buffer(nullptr, 1, true), Exception);
}

TEST(Buffer, SizedBufferIsZeroFilled) {
    Buffer buffer(5, 0);
    ASSERT_EQ(buffer.length(), 5U);
    EXPECT_EQ(buffer.view(), std::string_view("\0\0\0\0\0", 5));
    std::memcpy(buffer.data(), "12345", 5);
    EXPECT_EQ(buffer.view(), "12345");
}

TEST(Buffer, SizeZeroAndNegativeAreEmpty) {
    EXPECT_EQ(Buffer(0, 0).length(), 0U);
    EXPECT_EQ(Buffer(-1, 0).length(), 0U);
    EXPECT_EQ(Buffer().length(), 0U);
}

} // namespace
} // namespace Vellum
