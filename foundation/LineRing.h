// A bounded run of log lines that overwrites the oldest when full.
//
// Slots keep their memory when they are reused, so that a ring in steady use allocates nothing. Not thread-safe: the
// user brings the lock.
#pragma once

#include "foundation/Logger.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace Vellum {

struct LogLine {
    Logger::Severity severity = Logger::Severity::info;
    std::chrono::system_clock::time_point time;
    std::string text;
};

class LineRing {
  public:
    static constexpr std::size_t maxLineLength = 8192;  // bytes kept of one line, as much as system loggers take
    static constexpr std::size_t keptSlotMemory = 1024; // bytes a slot may keep for the next line

    // At least one line fits.
    explicit LineRing(std::size_t capacity) : m_slots(capacity == 0 ? 1 : capacity) {}

    // Adds a line; the oldest goes when none is free. A line above maxLineLength is cut, and says so.
    void push(Logger::Severity severity, std::chrono::system_clock::time_point time, std::string_view text);

    std::size_t size() const { return m_size; }
    std::size_t capacity() const { return m_slots.size(); }
    std::uint64_t lost() const { return m_lost; } // lines overwritten since clear()
    LogLine const& operator[](std::size_t i) const { return m_slots[(m_first + i) % m_slots.size()]; } // 0: the oldest

    // Forgets the lines and the count of the lost.
    void clear();

  private:
    std::vector<LogLine> m_slots;
    std::size_t m_first = 0; // slot of the oldest line
    std::size_t m_size = 0;
    std::uint64_t m_lost = 0;
};

} // namespace Vellum
