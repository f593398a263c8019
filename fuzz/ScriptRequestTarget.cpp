// A request as vellum-dbd's socket brings it, byte by byte.
#include "dbdaemon/ScriptRequest.h"
#include "foundation/database/DatabaseDaemon.h"
#include "fuzz/FuzzTarget.h"

#include <cstring>

namespace Vellum::Fuzz {
namespace {

using namespace DatabaseDaemon;

std::string encoded(ScriptRequest const& request) {
    auto const length = static_cast<std::int32_t>(request.path.size() + 1);
    std::string bytes(2 * sizeof length, '\0');
    std::memcpy(bytes.data(), &request.code, sizeof request.code);
    std::memcpy(bytes.data() + sizeof request.code, &length, sizeof length);
    return bytes + request.path + '\0';
}

// What becomes of the bytes while they arrive: incomplete, until it is known.
Frame arriving(std::string_view input, ScriptRequest& request) {
    for (std::size_t length = 0; length < input.size(); ++length) {
        std::string const begin(input.substr(0, length));
        Frame const sofar = readRequest(begin, request);
        if (sofar != Frame::incomplete) {
            return sofar;
        }
    }
    return readRequest(input, request);
}

void run(std::string_view input) {
    ScriptRequest request;
    Frame const frame = readRequest(input, request);
    ScriptRequest piecemeal;
    require(arriving(input, piecemeal) == frame, "a request in pieces is what it is as a whole");
    if (frame == Frame::whole) {
        require(request.code == piecemeal.code && request.path == piecemeal.path, "and says the same");
        require(request.path.starts_with("/") && request.path.find('\0') == std::string::npos,
                "a script's path is absolute");
        require(input.starts_with(encoded(request)), "a request is its own bytes");
    }
    require(frame != Frame::incomplete || input.size() < headerSize + longestPath, "a request comes to an end");
}

Target const target("script_request", run);

} // namespace
} // namespace Vellum::Fuzz
