// A request as it comes off the socket; its layout is in foundation/database/DatabaseDaemon.h.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace Vellum::DatabaseDaemon {

struct ScriptRequest {
    std::int32_t code = 0;
    std::string path;
};

enum class Frame {
    incomplete, // more bytes are needed
    malformed,  // no bytes could make it a request
    whole,
};

// Reads a request from the bytes received so far; bytes behind it are ignored. A length that is not 2 to longestPath,
// a path without its NUL at the end, with another inside, or not beginning with a slash is malformed, and that is told
// as soon as it can be seen.
Frame readRequest(std::string_view bytes, ScriptRequest& request);

} // namespace Vellum::DatabaseDaemon
