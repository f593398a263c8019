#include "foundation/StandardErrorLogger.h"

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <string>
#include <unistd.h>

namespace Vellum {
namespace {

// Local time as ISO 8601 with milliseconds and offset: 2024-05-01T12:00:00.123+00:00
std::string isoTime() {
    using namespace std::chrono;
    auto const now = system_clock::now();
    std::time_t const seconds = system_clock::to_time_t(now);
    auto const milliseconds = duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count() % 1000;
    std::tm local{};
    localtime_r(&seconds, &local);
    char date[32];
    char offset[8];
    std::strftime(date, sizeof date, "%Y-%m-%dT%H:%M:%S", &local);
    std::strftime(offset, sizeof offset, "%z", &local); // +hhmm
    char text[64];
    std::snprintf(text, sizeof text, "%s.%03d%.3s:%s", date, static_cast<int>(milliseconds), offset, offset + 3);
    return text;
}

} // namespace

StandardErrorLogger& StandardErrorLogger::instance() {
    static auto* const logger = new StandardErrorLogger;
    return *logger;
}

void StandardErrorLogger::write(Severity severity, std::string_view line) {
    std::string text = isoTime() + ' ' + program_invocation_short_name + '[' + std::to_string(getpid()) + "] " +
                       severityName(severity) + ": ";
    text.append(line);
    text += '\n';
    for (std::string_view rest = text; !rest.empty();) {
        ssize_t const written = ::write(STDERR_FILENO, rest.data(), rest.size());
        if (written > 0) {
            rest.remove_prefix(static_cast<std::size_t>(written));
        } else if (errno != EINTR) {
            return; // standard error is closed or full: nobody is left to tell
        }
    }
}

} // namespace Vellum
