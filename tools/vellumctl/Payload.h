// How a record's payload is taken apart.
#pragma once

#include "foundation/Exception.h"

#include <cstddef>
#include <cstring>
#include <string>
#include <string_view>

namespace Vellum::Tools {

// The value that begins at `offset`; the payload is long enough.
template <class T>
T at(std::string_view payload, std::size_t offset) {
    T value;
    std::memcpy(&value, payload.data() + offset, sizeof value);
    return value;
}

// Throws Exception, named after `type`::decode, when the payload is not of that size.
inline void expectSize(char const* type, std::string_view payload, std::size_t expected) {
    if (payload.size() != expected) {
        throw Exception(std::string(type) + "::decode", Exception::failure, type)
            .stringParameter("a record of " + std::to_string(payload.size()) + " bytes, expected " +
                             std::to_string(expected));
    }
}

} // namespace Vellum::Tools
