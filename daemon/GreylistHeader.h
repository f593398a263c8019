// The header that tells a recipient how long a message had to wait.
//
//   X-Greylist: delayed 312 seconds by vellumd at mx.example.com; Sat, 21 Nov 2026 09:19:17 +0000
#pragma once

#include <string>
#include <string_view>

namespace Vellum::Daemon {

inline constexpr char const* greylistHeaderName = "X-Greylist";

// Appends the header, or its value alone, without a line break. The host name is this system's own; nothing of the
// message is in it.
void appendGreylistHeader(std::string& out, long secondsWaited, std::string_view hostName, long now);
void appendGreylistHeaderValue(std::string& out, long secondsWaited, std::string_view hostName, long now);

// Appends `time` (seconds since the epoch) as RFC 5322 writes it, in UTC and English whatever the locale.
void appendMailDate(std::string& out, long time);

} // namespace Vellum::Daemon
