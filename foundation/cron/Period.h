// When a periodic job runs: whenever wall-clock seconds modulo interval equal offset.
#pragma once

namespace Vellum::Cron {

class Period {
  public:
    // Both in seconds. Period(3600, 1800) is every half past. An offset beyond the interval counts modulo it.
    // Throws Exception when the interval is 0.
    Period(unsigned int interval, unsigned int offset);

    unsigned int interval() const { return m_interval; }
    unsigned int offset() const { return m_offset; }

    // The latest instant of the schedule at or before `now` (seconds since the epoch, also before it).
    long latestUntil(long now) const;

  private:
    unsigned int m_interval;
    unsigned int m_offset; // below the interval
};

} // namespace Vellum::Cron
