#include "foundation/LogLineFormatter.h"

#include <chrono>
#include <cstdlib>
#include <ctime>
#include <gtest/gtest.h>
#include <spdlog/details/log_msg.h>
#include <string>
#include <unistd.h>

namespace Vellum {
namespace {

using Time = std::chrono::system_clock::time_point;

Time at(long long milliseconds) {
    return Time(std::chrono::milliseconds(milliseconds));
}

class LogLineFormatterTest : public testing::Test {
  protected:
    ~LogLineFormatterTest() override { useZone("UTC"); }

    static void useZone(char const* zone) {
        setenv("TZ", zone, 1);
        tzset();
    }
    std::string format(Time time, std::string const& text = "x",
                       spdlog::level::level_enum level = spdlog::level::info) {
        spdlog::memory_buf_t out;
        m_formatter.format(spdlog::details::log_msg(time, {}, "a name that is not shown", level, text), out);
        return {out.data(), out.size()};
    }
    static std::string program() { return " vellumd%d[" + std::to_string(getpid()) + "] "; }

    LogLineFormatter m_formatter{"vellumd%d"};
};

TEST_F(LogLineFormatterTest, AWholeLine) {
    useZone("UTC");
    EXPECT_EQ(format(at(1714557600007), "100%d {}", spdlog::level::warn),
              "2024-05-01T10:00:00.007+00:00" + program() + "warning: 100%d {}\n");
}

TEST_F(LogLineFormatterTest, EverySeverity) {
    useZone("UTC");
    std::string const start = "1970-01-01T00:00:00.000+00:00" + program();
    EXPECT_EQ(format(at(0), "", spdlog::level::debug), start + "debug: \n");
    EXPECT_EQ(format(at(0), "", spdlog::level::info), start + "info: \n");
    EXPECT_EQ(format(at(0), "", spdlog::level::err), start + "error: \n");
}

TEST_F(LogLineFormatterTest, MillisecondsAreCutAndSecondsFollow) {
    useZone("UTC");
    EXPECT_EQ(format(at(999) + std::chrono::microseconds(999)),
              "1970-01-01T00:00:00.999+00:00" + program() + "info: x\n");
    EXPECT_EQ(format(at(1000)), "1970-01-01T00:00:01.000+00:00" + program() + "info: x\n");
    EXPECT_EQ(format(at(86399123)), "1970-01-01T23:59:59.123+00:00" + program() + "info: x\n");
    EXPECT_EQ(format(at(86400045)), "1970-01-02T00:00:00.045+00:00" + program() + "info: x\n");
    EXPECT_EQ(format(at(1000)), "1970-01-01T00:00:01.000+00:00" + program() + "info: x\n") << "a clock set back";
}

TEST_F(LogLineFormatterTest, LocalTimeWithItsDistanceFromUtc) {
    useZone("CET-1CEST,M3.5.0,M10.5.0/3");
    EXPECT_EQ(format(at(1711846799999)), "2024-03-31T01:59:59.999+01:00" + program() + "info: x\n");
    EXPECT_EQ(format(at(1711846800000)), "2024-03-31T03:00:00.000+02:00" + program() + "info: x\n");
    useZone("NST3:30");
    EXPECT_EQ(format(at(1711846801000)), "2024-03-30T21:30:01.000-03:30" + program() + "info: x\n");
}

TEST_F(LogLineFormatterTest, ACopyWritesTheSame) {
    useZone("UTC");
    spdlog::memory_buf_t out;
    m_formatter.clone()->format(spdlog::details::log_msg(at(5), {}, "", spdlog::level::info, "x"), out);
    EXPECT_EQ(std::string(out.data(), out.size()), format(at(5)));
}

} // namespace
} // namespace Vellum
