// Words of a command line as values. Each operation throws Failure (usage) naming the option and the word.
#pragma once

#include "foundation/StringPattern.h"

#include <cstdint>
#include <limits>
#include <string>

namespace Vellum::Tools {

[[noreturn]] void wrongArgument(std::string const& text);

std::uint64_t wholeNumber(char const* option, std::string const& text, std::uint64_t lowest,
                          std::uint64_t highest = std::numeric_limits<std::uint64_t>::max());
// "" is the empty pattern, which matches everything.
StringPattern patternArgument(char const* option, std::string const& text);

} // namespace Vellum::Tools
