// Trouble that begins, lasts and ends, said twice instead of all the time.
//
// Its begin is logged once, and then its end. Trouble that comes back within `quiet` of the last begin that was logged
// stays unmentioned, and so does its end. Thread-safe. Times are passed in, so that tests need not wait.
#pragma once

#include "foundation/Locks.h"

#include <chrono>
#include <optional>
#include <string_view>

namespace Vellum::Daemon {

class OngoingTrouble {
  public:
    using Clock = std::chrono::steady_clock;

    explicit OngoingTrouble(std::chrono::seconds quiet) : m_quiet(quiet) {}

    void begins(std::string_view text, Clock::time_point now = Clock::now());
    void ends(std::string_view text);
    bool lasts() const;

  private:
    std::chrono::seconds const m_quiet;
    mutable Mutex m_mutex;
    bool m_lasts VELLUM_GUARDED_BY(m_mutex)
    = false;
    bool m_mentioned VELLUM_GUARDED_BY(m_mutex)
    = false;                                                                   // the begin of the trouble in hand
    std::optional<Clock::time_point> m_lastMention VELLUM_GUARDED_BY(m_mutex); // of any begin
};

} // namespace Vellum::Daemon
