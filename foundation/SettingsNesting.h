// How deep a settings file nests, told before the TOML parser sees it.
//
// That parser goes one call deeper with each level, and copies what is below it at each: some thousand opening brackets
// end the process, and a thousand take it seconds. No settings need more than a few levels.
#pragma once

#include <string_view>

namespace Vellum {

inline constexpr unsigned int mostSettingsLevels = 32;

// The first line, counted from 1, on which more than `most` levels are open; 0 when there is none. A level is a bracket
// or brace that is not closed yet, or a dot in the key at hand. Those within quoted texts and comments are none. Of a
// file that is not TOML this holds up to its first mistake.
unsigned int lineNestedDeeperThan(unsigned int most, std::string_view toml);

} // namespace Vellum
