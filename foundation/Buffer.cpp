#include "foundation/Buffer.h"

#include "foundation/Exception.h"

#include <algorithm>

namespace Vellum {

Buffer::Buffer(void const* data, unsigned int length, bool) {
    if (length == 0) {
        return;
    }
    if (data == nullptr) {
        throw Exception("Buffer::Buffer", Exception::failure, "Buffer")
            .stringParameter("no data for a length of " + std::to_string(length));
    }
    auto const* const first = static_cast<char const*>(data);
    m_bytes.assign(first, first + length);
}

Buffer::Buffer(int size, int) : m_bytes(static_cast<std::size_t>(std::max(size, 0))) {}

} // namespace Vellum
