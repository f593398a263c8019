// How a line looks in a log file and on standard error:
//
//   2024-05-01T12:00:00.123+02:00 vellumd[815] warning: 0x03000170: GlDisplay; 154
//
// Local time with milliseconds and its distance from UTC, program, pid, severity, text. A formatter of our own, because
// a line is written for every decision: what changes once a second at most is made once a second.
#pragma once

#include <ctime>
#include <memory>
#include <spdlog/formatter.h>
#include <string>

namespace Vellum {

// Not thread-safe: each sink has its own, and one thread uses a sink.
class LogLineFormatter final : public spdlog::formatter {
  public:
    explicit LogLineFormatter(std::string program) : m_program(std::move(program)) {}

    void format(spdlog::details::log_msg const& line, spdlog::memory_buf_t& out) override;
    std::unique_ptr<spdlog::formatter> clone() const override { return std::make_unique<LogLineFormatter>(m_program); }

  private:
    void beginSecond(std::time_t second);

    std::string const m_program;
    std::time_t m_second = -1;       // the one that the texts are for
    std::string m_beforeMillisecond; // "2024-05-01T12:00:00."
    std::string m_afterMillisecond;  // "+02:00 vellumd[815] "
};

} // namespace Vellum
