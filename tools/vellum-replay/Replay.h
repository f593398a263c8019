// Plays envelopes through the daemon's own decision, at the times they came.
//
// A message that is deferred comes back as the retry model has it (or at the time the file gives), in its place among
// the others, so that tuples and exemptions change as they would have. There is no other clock than the file's.
#pragma once

#include "daemon/Decision.h"
#include "tools/vellum-replay/EnvelopeFile.h"
#include "tools/vellum-replay/RetryModel.h"
#include "tools/vellum-replay/Statistics.h"

#include <functional>
#include <queue>
#include <vector>

namespace Vellum::Tools {

class Replay {
  public:
    // `progress` is called now and then with the rows done. All are borrowed.
    Replay(Daemon::Decision& decision, RetryModel const& retries, Statistics& statistics, SkippedRows& skipped,
           std::function<void(std::size_t)> progress);

    // Plays all of them, in the order given by their first attempts, until none is under way any more.
    void run(std::vector<Envelope> const& envelopes);

  private:
    // A delivery under way; those of the same second come in the order in which they were deferred.
    struct Attempt {
        long time = 0;
        std::uint64_t order = 0;
        Delivery delivery;
    };
    struct Later {
        bool operator()(Attempt const& a, Attempt const& b) const {
            return a.time != b.time ? a.time > b.time : a.order > b.order;
        }
    };

    void attempt(Delivery delivery, long now);
    void tryAgain(Delivery const& delivery, long now);
    void passTime(long now);

    Daemon::Decision& m_decision;
    RetryModel const& m_retries;
    Statistics& m_statistics;
    SkippedRows& m_skipped;
    std::function<void(std::size_t)> m_progress;
    std::priority_queue<Attempt, std::vector<Attempt>, Later> m_waiting;
    std::uint64_t m_deferrals = 0;
    long m_day = 0; // of the last attempt
};

} // namespace Vellum::Tools
