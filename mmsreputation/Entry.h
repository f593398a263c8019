// What one subscriber sent lately: counts for each time slice, and an automatic blacklist expiry.
#pragma once

#include "foundation/Locks.h"
#include "foundation/RelaxedCount.h"
#include "foundation/RelaxedTime.h"
#include "include2/VellumRefcounted.h"
#include "mmsreputation/Period.h"

#include <boost/container/flat_map.hpp>

#include <cstddef>
#include <cstdint>

namespace Vellum::MMSReputation {

// Shared through RefEntry handles, so a listing or a backup may hold one that the cache has dropped.
//
// Threads: one lock, s_mutex, guards the record maps of all entries together. Counts inside a map are raised in upgrade
// mode, beside listings that read them; either value is true (RelaxedCount). Where s_mutex and the cache's lock are
// both held, s_mutex is taken first.
class Entry : public RefImpl {
  public:
    // Counts of one slice; columns "Spam" and "Infected".
    struct Record {
        Record() = default;
        Record(std::uint32_t spamCount, std::uint32_t infectedCount) : spam(spamCount), infected(infectedCount) {}

        RelaxedCount spam;
        RelaxedCount infected;
    };
    // By slice index, ascending. In one piece of memory: there are few, and listings and scores walk them.
    using Records = boost::container::flat_map<std::uint32_t, Record>;

    // What a message counts as. Any other value only makes the slice's record exist.
    enum class AttributeType : std::uint32_t { infected = 0, spam = 1 };

    // Slices that increment() keeps.
    static constexpr std::size_t mostRecords = Period::slicesPerWindow;
    // Slices before the current one that are scored too: 16 in all, one more than increment() keeps. That is intended:
    // loaded entries may hold more.
    static constexpr std::uint32_t scoredBefore = 15;

    Entry() = default;

    // Counts one message in slice `index`. A new slice pushes out the oldest ones beyond mostRecords. Answers the
    // slice's record, or null when the slice is older than all that are kept: then nothing is counted.
    // Thread-safe: upgrade mode, exclusive for a new slice. Throws std::bad_alloc.
    Record const* increment(AttributeType type, std::uint32_t index);

    // Sets the counts of a slice, whatever they were. Neither locks nor trims: for a loader, whose entries nobody else
    // sees yet.
    void add(Period const& period, Record const& record);

    // Drops all records below slice `lowest`.
    void purgeRecords(std::uint32_t lowest) VELLUM_REQUIRES(s_mutex);

    // Spam and infected messages in slice `index` and the 15 before it, and in any after it; unsigned arithmetic that
    // wraps, below slice 15 too. With `lock` the lock is taken shared; without, the caller holds it.
    std::uint32_t score(std::uint32_t index, bool lock) const;
    std::uint32_t _score(std::uint32_t index) const VELLUM_REQUIRES_SHARED(s_mutex);

    // Valid while s_mutex is held, shared at least.
    Records const& records() const VELLUM_REQUIRES_SHARED(s_mutex)
    { return m_records; }

    // Until when the subscriber is automatically blacklisted, seconds since the epoch; 0: not at all. Without a lock:
    // a listing may send the old or the new value, both are true.
    long blacklistExpiry() const { return m_blacklistExpiry; }
    void blacklistExpiry(long expiry) { m_blacklistExpiry = expiry; }

    static SharedMutex s_mutex;

  private:
    Records m_records VELLUM_GUARDED_BY(s_mutex);
    RelaxedTime m_blacklistExpiry;
};

// A counted handle on an entry.
class RefEntry : public Ref<Entry> {
  public:
    RefEntry() = default;
    // With `create` on a new, empty entry, whose first reference it adopts; otherwise on none.
    explicit RefEntry(bool create) : Ref<Entry>(create ? new Entry : nullptr) {}
    ~RefEntry() override = default;
    RefEntry(RefEntry const&) = default;
    RefEntry& operator=(RefEntry const&) = default;
    RefEntry(RefEntry&&) noexcept = default;
    RefEntry& operator=(RefEntry&&) noexcept = default;
};

} // namespace Vellum::MMSReputation
