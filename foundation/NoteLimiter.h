// Keeps trouble that repeats from filling the log: notes of one kind.
//
// The first `burst` of an interval are logged, the others counted; the first one logged after that ends with
// " (N more like this were not logged)". Thread-safe. Times are passed in, so that tests need not wait.
#pragma once

#include "foundation/Locks.h"
#include "foundation/Logger.h"

#include <chrono>
#include <cstdint>
#include <string>

namespace Vellum {

class NoteLimiter {
  public:
    using Clock = std::chrono::steady_clock;

    NoteLimiter(unsigned int burst, std::chrono::seconds interval)
        : m_burst(burst), m_interval(interval), m_logged(0), m_dropped(0) {}

    void note(Logger::Severity severity, std::string text, Clock::time_point now = Clock::now());

  private:
    unsigned int const m_burst;
    std::chrono::seconds const m_interval;
    Mutex m_lock;
    Clock::time_point m_begin VELLUM_GUARDED_BY(m_lock); // of the interval
    unsigned int m_logged VELLUM_GUARDED_BY(m_lock);     // in this interval
    std::uint64_t m_dropped VELLUM_GUARDED_BY(m_lock);   // since the last one logged
};

} // namespace Vellum
