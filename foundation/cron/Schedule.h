// Which of several periodic jobs are due, as arithmetic on a given `now`.
//
// Invariants: for each job, `considered` is the latest instant at or before the last `now`, and `done` holds the last
// thousand instants that were answered. None of those is answered again, however often the clock is set back.
#pragma once

#include "foundation/cron/Period.h"

#include <cstddef>
#include <optional>
#include <set>
#include <vector>

namespace Vellum::Cron {

class Schedule {
  public:
    // Adds a job and answers its place, counted from 0. Its first instant is the first one at or after `now`.
    std::size_t add(Period const& period, long now);

    // The places of the jobs to run at `now`, each once, in order of their instants. They count as run.
    std::vector<std::size_t> due(long now);

    // The instant at which something is due next, not after `now` when something is due already; nothing when there is
    // no job.
    std::optional<long> next(long now) const;

  private:
    struct Entry {
        Period period;
        long considered;
        std::set<long> done{};
    };
    // The instant to run now, if any.
    static std::optional<long> take(Entry& entry, long now);

    std::vector<Entry> m_entries;
};

} // namespace Vellum::Cron
