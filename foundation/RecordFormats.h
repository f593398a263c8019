// The formats of coded log records that log readers are promised; fields are separated by the byte 0x01. A family's
// LogCodes.h says which code comes with which.
#pragma once

namespace Vellum {

inline constexpr char const* formatText = "%s";
inline constexpr char const* formatSourceLine = "%s\x01%d";
inline constexpr char const* formatSourceLineText = "%s\x01%d\x01%s";
inline constexpr char const* formatSourceLineTextPath = "%s\x01%d\x01%s\x01%s";
inline constexpr char const* formatSignatureText = "%s\x01%s";
inline constexpr char const* formatSignatureSourceLine = "%s\x01%s\x01%d";

} // namespace Vellum
