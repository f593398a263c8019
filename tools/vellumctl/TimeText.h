// Times and sizes as people read them.
#pragma once

#include <cstdint>
#include <string>

namespace Vellum::Tools {

// "2026-11-21 10:04" in local time; "@N" for seconds that are no date of a calendar.
std::string localTime(std::int64_t seconds);
// "in 4 min", "3 h ago", "now": the greatest unit of which there is at least one (days from two on), rounded down.
std::string relativeTime(std::int64_t seconds, std::int64_t now);
// Both: "2026-11-21 10:04 (in 4 min)".
std::string timeText(std::int64_t seconds, std::int64_t now);
// "3 d 4 h", "2 h 5 min", "12 s".
std::string durationText(std::int64_t seconds);
// "340 ms", "12.3 s".
std::string millisecondsText(std::uint64_t milliseconds);
// "512 bytes", "12.3 MB" (powers of 1000).
std::string bytesText(std::uint64_t bytes);

} // namespace Vellum::Tools
