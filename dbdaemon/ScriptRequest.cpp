#include "dbdaemon/ScriptRequest.h"

#include "foundation/database/DatabaseDaemon.h"

#include <cstring>

namespace Vellum::DatabaseDaemon {

Frame readRequest(std::string_view bytes, ScriptRequest& request) {
    if (bytes.size() < headerSize) {
        return Frame::incomplete;
    }
    std::int32_t length = 0;
    std::memcpy(&request.code, bytes.data(), sizeof request.code);
    std::memcpy(&length, bytes.data() + sizeof request.code, sizeof length);
    if (length < 2 || length > static_cast<std::int32_t>(longestPath)) {
        return Frame::malformed;
    }
    std::string_view const path = bytes.substr(headerSize, static_cast<std::size_t>(length));
    if (!path.empty() && path.front() != '/') {
        return Frame::malformed;
    }
    std::size_t const nul = path.find('\0');
    std::size_t const last = static_cast<std::size_t>(length) - 1;
    if (nul != std::string_view::npos && nul != last) {
        return Frame::malformed;
    }
    if (path.size() <= last) {
        return Frame::incomplete;
    }
    if (nul != last) {
        return Frame::malformed;
    }
    request.path = path.substr(0, last);
    return Frame::whole;
}

} // namespace Vellum::DatabaseDaemon
