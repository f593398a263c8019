// The greylisting decision and the cache behind it.
#pragma once

#include "greylist/Status.h"
#include "greylist/TupleId.h"
#include "include2/LRUCache.h"

#include <boost/shared_ptr.hpp>

namespace Vellum::GreyList {

// What a decision found, for those who want more than its answer.
struct TupleDecision {
    enum class Situation {
        fresh,   // never seen, or forgotten: the period starts now
        expired, // seen, but its record was dead: the period starts again
        early,   // retried before the delay was over
        passes,
    };
    Situation situation = Situation::fresh;
    bool firstPass = false; // passes for the first time in this period: the message had to wait
    bool isLate = false;    // not in the cache yet, because others were reading it; only of decideAtOnce()
    long firstSeen = 0;     // start of the period, seconds since the epoch
    long passTime = 0;      // from when on the tuple passes
    long expiry = 0;        // until when the record lives, after this decision

    bool passed() const { return situation == Situation::passes; }
    bool begins() const { return situation == Situation::fresh || situation == Situation::expired; }
};

// Whether a record has not passed yet in its period. `firstLife`: seconds that a new tuple lives now. A loaded record
// has forgotten its first lifetime, but a pass grants days, so one that lives no longer than a first lifetime has never
// passed.
bool isWaiting(Status const& status, long firstLife);

// All tuples of the process. Times are seconds since the epoch, given by the caller; nothing here reads a clock.
// Decisions read the index directly, so they do not count as uses: the entry added (or found with find()) longest ago
// goes first, however often its mail passes.
class _TupleCache : public LRUCache<TupleId, Status> {
  public:
    // Capacity: Configuration::maxRecords() as it is now; a later change resizes nothing. Logs it.
    // Throws Exception when no configuration is installed.
    _TupleCache();

    // Decides whether a message with this identity may pass at `now`. Answers 1 to let it pass, 0 to defer.
    // At exactly firstSeen + delay it passes; at exactly expiry the tuple still lives.
    // Throws std::bad_alloc when a new tuple finds no memory; the lock is free again by then.
    // Thread-safe: upgrade mode, exclusive only for a new or restarted tuple; then it waits while somebody reads the
    // whole cache, which a listing does for as long as its client takes.
    virtual int state(TupleId const& id, long now) const;

    // The same decision, with what it rests on.
    TupleDecision decide(TupleId const& id, long now) const;
    // The same; an identity is made only when the tuple is a new one.
    TupleDecision decide(TupleParts const& tuple, long now) const;

    // The same without ever waiting for readers: a new or restarted tuple is then late, and for the caller to admit()
    // at another time, with the same `now`, so that its period begins when it did.
    TupleDecision decideAtOnce(TupleParts const& tuple, long now) const;

    // Lets a late tuple in as it was decided at `now`. One that somebody else has begun later, and that still waits,
    // gets the earlier time; whatever else is known of it stays. Takes the lock exclusively. Throws std::bad_alloc.
    void admit(TupleId const& id, long now) const;

    // What decide() would answer, without a change. Takes the lock shared.
    TupleDecision preview(TupleParts const& tuple, long now) const;

    // Lets the tuple's next message pass: what has to wait, or is not known, has waited from now on. Its record lives
    // as if it had been seen a delay ago: for the first life without the delay. False when it passes already; nothing
    // is changed then. Takes the lock exclusively. Throws std::bad_alloc.
    bool release(TupleParts const& tuple, long now);

  private:
    template <class Key>
    TupleDecision decideFor(Key const& key, long now) const;
    // The answer; changes nothing.
    TupleDecision judge(iterator found, long now) const VELLUM_REQUIRES_SHARED(lock);
    // Adds or restarts a tuple as it was judged.
    void begin(iterator found, TupleId const& id, TupleDecision const& judged) const VELLUM_REQUIRES(lock);
    // False: it has to be added or restarted, and somebody reads the cache.
    template <class Key>
    bool tryDecide(Key const& key, long now, TupleDecision& decision) const;
};

// The process-wide handle.
class TupleCache {
  public:
    TupleCache() : m_impl(new _TupleCache()) {}
    virtual ~TupleCache() = default;

    // The flag is ignored. Throws what the constructor of _TupleCache throws; the next call then tries again.
    static TupleCache* instance(bool = true);

    _TupleCache* operator->() const { return m_impl.get(); }
    _TupleCache& operator*() const { return *m_impl; }

  private:
    boost::shared_ptr<_TupleCache> m_impl;
};

} // namespace Vellum::GreyList
