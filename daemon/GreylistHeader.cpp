#include "daemon/GreylistHeader.h"

#include <array>
#include <cstdio>
#include <ctime>

namespace Vellum::Daemon {

void appendGreylistHeader(std::string& out, long secondsWaited, std::string_view hostName, long now) {
    out += greylistHeaderName;
    out += ": ";
    appendGreylistHeaderValue(out, secondsWaited, hostName, now);
}

void appendGreylistHeaderValue(std::string& out, long secondsWaited, std::string_view hostName, long now) {
    out += "delayed ";
    out += std::to_string(secondsWaited);
    out += " seconds by vellumd at ";
    out += hostName;
    out += "; ";
    appendMailDate(out, now);
}

void appendMailDate(std::string& out, long time) {
    static constexpr std::array<char const*, 7> days{"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
    static constexpr std::array<char const*, 12> months{"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                                        "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    std::time_t const seconds = time;
    std::tm utc{};
    gmtime_r(&seconds, &utc);
    char text[64];
    std::snprintf(text, sizeof text, "%s, %02d %s %d %02d:%02d:%02d +0000", days[static_cast<std::size_t>(utc.tm_wday)],
                  utc.tm_mday, months[static_cast<std::size_t>(utc.tm_mon)], utc.tm_year + 1900, utc.tm_hour,
                  utc.tm_min, utc.tm_sec);
    out += text;
}

} // namespace Vellum::Daemon
