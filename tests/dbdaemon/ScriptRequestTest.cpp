#include "dbdaemon/ScriptRequest.h"

#include "foundation/database/DatabaseDaemon.h"

#include <cstring>
#include <gtest/gtest.h>

namespace Vellum::DatabaseDaemon {
namespace {

std::string frame(std::int32_t code, std::int32_t length, std::string const& path) {
    std::string bytes(8, '\0');
    std::memcpy(bytes.data(), &code, 4);
    std::memcpy(bytes.data() + 4, &length, 4);
    return bytes + path;
}

Frame read(std::string const& bytes) {
    ScriptRequest request;
    return readRequest(bytes, request);
}

TEST(ScriptRequest, BufferIsHeaderPathAndNul) {
    Buffer const bytes = request(RequestCode::greylistScript, "/a.sql");
    EXPECT_EQ(bytes.view(), frame(4, 7, std::string("/a.sql\0", 7)));
    EXPECT_EQ(request(RequestCode::reputationScript, "/a").view(), frame(5, 3, std::string("/a\0", 3)));
    EXPECT_EQ(request(RequestCode::endpointScript, "/a").view(), frame(9, 3, std::string("/a\0", 3)));
}

TEST(ScriptRequest, ComesOutAsItWentIn) {
    ScriptRequest read;
    EXPECT_EQ(readRequest(request(RequestCode::endpointScript, "/var/x y.sql").view(), read), Frame::whole);
    EXPECT_EQ(read.code, 9);
    EXPECT_EQ(read.path, "/var/x y.sql");
}

TEST(ScriptRequest, EveryBeginningIsIncomplete) {
    Buffer const whole = request(RequestCode::greylistScript, "/spool/greylist.sql");
    for (std::size_t length = 0; length < whole.length(); ++length) {
        EXPECT_EQ(read(std::string(whole.view().substr(0, length))), Frame::incomplete) << length;
    }
    EXPECT_EQ(read(std::string(whole.view()) + "more"), Frame::whole) << "what follows is ignored";
}

TEST(ScriptRequest, UnknownCodesAreWhole) {
    EXPECT_EQ(read(frame(-1, 3, std::string("/a\0", 3))), Frame::whole);
}

TEST(ScriptRequest, ImpossibleLengthsAreSeenInTheHeader) {
    for (std::int32_t const length : {-2147483647 - 1, -1, 0, 1, 4097, 2147483647}) {
        EXPECT_EQ(read(frame(4, length, "")), Frame::malformed) << length;
    }
    EXPECT_EQ(read(frame(4, 2, "")), Frame::incomplete);
    EXPECT_EQ(read(frame(4, 4096, "")), Frame::incomplete);
    EXPECT_EQ(read(frame(4, 4096, '/' + std::string(4094, 'a') + '\0')), Frame::whole);
}

TEST(ScriptRequest, PathMustBeAbsoluteAndEndWithItsOnlyNul) {
    EXPECT_EQ(read(frame(4, 20, "a")), Frame::malformed) << "seen at its first byte";
    EXPECT_EQ(read(frame(4, 2, std::string(1, '\0'))), Frame::malformed);
    EXPECT_EQ(read(frame(4, 20, std::string("/a\0", 3))), Frame::malformed) << "seen at the early NUL";
    EXPECT_EQ(read(frame(4, 3, "/ab")), Frame::malformed);
}

} // namespace
} // namespace Vellum::DatabaseDaemon
