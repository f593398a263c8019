// Keeps trouble that repeats from filling the log.
//
// Thread-safe. Times are passed in, so that tests need not wait.
#pragma once

#include "foundation/Locks.h"
#include "foundation/Logger.h"

#include <chrono>
#include <cstdint>
#include <string>

namespace Vellum::Daemon {

// Notes of one kind: the first `burst` of an interval are logged, the others counted. The first one logged after that
// ends with " (N more like this were not logged)".
class NoteLimiter {
  public:
    using Clock = std::chrono::steady_clock;

    NoteLimiter(unsigned int burst, std::chrono::seconds interval) : m_burst(burst), m_interval(interval) {}

    void note(Logger::Severity severity, std::string text, Clock::time_point now = Clock::now());

  private:
    unsigned int const m_burst;
    std::chrono::seconds const m_interval;
    Mutex m_mutex;
    Clock::time_point m_begin VELLUM_GUARDED_BY(m_mutex); // of the interval
    unsigned int m_logged VELLUM_GUARDED_BY(m_mutex)
    = 0; // in this interval
    std::uint64_t m_dropped VELLUM_GUARDED_BY(m_mutex)
    = 0;
};

// A state of trouble that begins, lasts and ends: its begin is logged once, and then its end. Trouble that comes back
// within `quiet` of the last begin that was logged stays unmentioned, and so does its end.
class OngoingTrouble {
  public:
    using Clock = std::chrono::steady_clock;

    explicit OngoingTrouble(std::chrono::seconds quiet) : m_quiet(quiet) {}

    void begins(std::string_view text, Clock::time_point now = Clock::now());
    void ends(std::string_view text);

  private:
    std::chrono::seconds const m_quiet;
    Mutex m_mutex;
    bool m_lasting VELLUM_GUARDED_BY(m_mutex)
    = false;
    bool m_mentioned VELLUM_GUARDED_BY(m_mutex)
    = false; // the begin of the trouble in hand
    bool m_everMentioned VELLUM_GUARDED_BY(m_mutex)
    = false;
    Clock::time_point m_lastMention VELLUM_GUARDED_BY(m_mutex);
};

} // namespace Vellum::Daemon
