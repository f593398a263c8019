#include "foundation/LogLineFormatter.h"

#include <array>
#include <chrono>
#include <cstdlib>
#include <spdlog/details/log_msg.h>
#include <string_view>
#include <unistd.h>

namespace Vellum {
namespace {

void append(spdlog::memory_buf_t& out, std::string_view text) {
    out.append(text.data(), text.data() + text.size());
}

std::array<char, 3> threeDigits(long number) {
    auto const digit = [](long value) {
        return static_cast<char>('0' + value % 10);
    };
    return {digit(number / 100), digit(number / 10), digit(number)};
}

} // namespace

void LogLineFormatter::format(spdlog::details::log_msg const& line, spdlog::memory_buf_t& out) {
    using std::chrono::floor;
    auto const second = floor<std::chrono::seconds>(line.time);
    if (std::time_t const time = std::chrono::system_clock::to_time_t(second); time != m_second) {
        beginSecond(time);
    }
    auto const digits = threeDigits(floor<std::chrono::milliseconds>(line.time - second).count());
    append(out, m_beforeMillisecond);
    append(out, {digits.data(), digits.size()});
    append(out, m_afterMillisecond);
    auto const severity = spdlog::level::to_string_view(line.level);
    append(out, {severity.data(), severity.size()});
    append(out, ": ");
    append(out, {line.payload.data(), line.payload.size()});
    append(out, "\n");
}

void LogLineFormatter::beginSecond(std::time_t second) {
    m_second = second;
    std::tm local{};
    localtime_r(&second, &local);
    char text[64];
    m_beforeMillisecond.assign(text, std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S.", &local));
    m_afterMillisecond.assign(text, std::strftime(text, sizeof text, "%z", &local)); // "+0200"
    m_afterMillisecond.insert(3, ":");
    m_afterMillisecond += ' ' + m_program + '[' + std::to_string(getpid()) + "] ";
}

} // namespace Vellum
