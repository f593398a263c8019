#include "tools/vellumctl/TimeText.h"

#include <cmath>
#include <cstdio>
#include <ctime>

namespace Vellum::Tools {
namespace {

constexpr std::uint64_t minute = 60;
constexpr std::uint64_t hour = 60 * minute;
constexpr std::uint64_t day = 24 * hour;

std::string withUnit(std::uint64_t number, char const* unit) {
    return std::to_string(number) + " " + unit;
}

std::string distanceText(std::uint64_t seconds) {
    if (seconds < minute) {
        return withUnit(seconds, "s");
    }
    if (seconds < hour) {
        return withUnit(seconds / minute, "min");
    }
    return seconds < 2 * day ? withUnit(seconds / hour, "h") : withUnit(seconds / day, "d");
}

std::string oneDecimal(double number, char const* unit) {
    char text[48];
    std::snprintf(text, sizeof text, "%.1f %s", number, unit);
    return text;
}

} // namespace

std::string localTime(std::int64_t seconds) {
    std::time_t const time = seconds;
    std::tm parts{};
    char text[64];
    if (::localtime_r(&time, &parts) == nullptr || parts.tm_year < -1900 || parts.tm_year > 8099 ||
        std::strftime(text, sizeof text, "%Y-%m-%d %H:%M", &parts) == 0) {
        return "@" + std::to_string(seconds);
    }
    return text;
}

std::string relativeTime(std::int64_t seconds, std::int64_t now) {
    if (seconds == now) {
        return "now";
    }
    // Unsigned, because the distance of two times can be more than either of them.
    std::uint64_t const distance = seconds > now
                                       ? static_cast<std::uint64_t>(seconds) - static_cast<std::uint64_t>(now)
                                       : static_cast<std::uint64_t>(now) - static_cast<std::uint64_t>(seconds);
    return seconds > now ? "in " + distanceText(distance) : distanceText(distance) + " ago";
}

std::string timeText(std::int64_t seconds, std::int64_t now) {
    return localTime(seconds) + " (" + relativeTime(seconds, now) + ")";
}

std::string durationText(std::int64_t seconds) {
    auto const total = static_cast<std::uint64_t>(seconds < 0 ? 0 : seconds);
    if (total < minute) {
        return withUnit(total, "s");
    }
    if (total < hour) {
        return withUnit(total / minute, "min") + " " + withUnit(total % minute, "s");
    }
    if (total < day) {
        return withUnit(total / hour, "h") + " " + withUnit(total % hour / minute, "min");
    }
    return withUnit(total / day, "d") + " " + withUnit(total % day / hour, "h");
}

std::string millisecondsText(std::uint64_t milliseconds) {
    return milliseconds < 10000 ? withUnit(milliseconds, "ms")
                                : oneDecimal(static_cast<double>(milliseconds) / 1000, "s");
}

std::string bytesText(std::uint64_t bytes) {
    constexpr double step = 1000;
    constexpr double roundsToNext = 999.95;
    if (bytes < 1000) {
        return withUnit(bytes, bytes == 1 ? "byte" : "bytes");
    }
    double size = static_cast<double>(bytes) / step;
    for (char const* unit : {"kB", "MB", "GB"}) {
        if (size < roundsToNext) {
            return oneDecimal(size, unit);
        }
        size /= step;
    }
    return oneDecimal(size, "TB");
}

} // namespace Vellum::Tools
