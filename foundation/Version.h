// The version of everything here; the build takes it from this line.
#pragma once

namespace Vellum {

inline constexpr char const* version = "0.1.0";

} // namespace Vellum
