// Parsers that refuse with an exception, as ones that answer nothing.
#pragma once

#include "foundation/Exception.h"

#include <optional>
#include <string>
#include <string_view>

namespace Vellum::Fuzz {

// What `parse` answers; nothing when it refuses with Exception. Any other exception passes.
template <class Parse>
auto accepted(Parse parse) -> std::optional<decltype(parse())> {
    try {
        return parse();
    } catch (Exception const&) {
        return std::nullopt;
    }
}

// A value made of a text.
template <class Value>
std::optional<Value> parsed(std::string_view text) {
    return accepted([&] { return Value(std::string(text)); });
}

} // namespace Vellum::Fuzz
