// Tuples whose greylisting has begun, and that wait to be let into the cache: somebody reads the whole of it, which a
// listing does for as long as its client takes. Mail does not wait for that.
//
//   TupleDecision const decision = tuples.decideAtOnce(parts, now);
//   if (decision.isLate) {
//       late.add(parts, now);
//   }
//
// Bounded: what comes beyond is not kept, and begins with its next attempt. Thread-safe. The thread that lets them in
// is there from the start, so that no decision depends on whether there is room for one.
#pragma once

#include "greylist/TupleCache.h"

#include <condition_variable>
#include <cstddef>
#include <map>
#include <mutex>
#include <thread>

namespace Vellum::Daemon {

class LateTuples {
  public:
    static constexpr std::size_t most = 100'000;

    // The cache is borrowed. Throws std::system_error without a thread.
    explicit LateTuples(GreyList::_TupleCache& tuples, std::size_t mostHeld = most);
    ~LateTuples(); // lets in what is left
    LateTuples(LateTuples const&) = delete;
    LateTuples& operator=(LateTuples const&) = delete;

    // `now`, seconds since the epoch, is when its period begins. A tuple that is here already keeps its time.
    // Throws std::bad_alloc.
    void add(GreyList::TupleParts const& tuple, long now);

    // Until all are in the cache.
    void waitUntilDone();

  private:
    void work();

    GreyList::_TupleCache& m_tuples;
    std::size_t const m_most;
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::map<GreyList::TupleId, long> m_waiting; // under m_mutex, as is the next
    bool m_ending = false;
    std::thread m_thread;
};

} // namespace Vellum::Daemon
