// What is remembered of one sender: five counters for every five minutes, and whether, until when and why it is
// blocked.
//
// The counters are the host's to name, as are the limits it compares their totals with, and the moment it blocks.
// Totals cover half an hour: the current period and the five before it.
//
// Two locks, both for all entries together. `s_lock` is the family's entry lock: exclusive for a change, upgrade for
// totals, shared for a listing; where a cache lock is taken too, this one comes first. Totals forget old periods, and a
// listing computes totals under its shared hold, so two of them may erase from the same entry at once. Hence the
// second, `s_recordsLock`: whoever touches an entry's records holds it, for that moment only, as the innermost of all.
// State, reason and end are single values that anybody may read without a lock.
#pragma once

#include "foundation/Locks.h"
#include "foundation/RelaxedTime.h"

#include <boost/container/flat_map.hpp>
#include <boost/enable_shared_from_this.hpp>
#include <boost/shared_ptr.hpp>

#include <atomic>
#include <cstddef>
#include <cstdint>

// Totals of the five counters. Plain data.
struct SenderRateControlRecord {
    std::uint32_t count1 = 0;
    std::uint32_t count2 = 0;
    std::uint32_t count3 = 0;
    std::uint32_t count4 = 0;
    std::uint32_t count5 = 0;
};

namespace Vellum {

using ::SenderRateControlRecord;

namespace SenderRateControl {

constexpr long periodSeconds = 300;                           // a period is a time since the epoch, divided by this
constexpr long periodsTotalled = 6;                           // the current one included
constexpr long spanSeconds = periodsTotalled * periodSeconds; // half an hour

// The first period that totals at `now` (seconds since the epoch) cover.
constexpr std::uint32_t firstPeriodAt(long now) {
    return static_cast<std::uint32_t>((now - spanSeconds) / periodSeconds + 1);
}

// How a sender is treated, as its host has said. The host may keep other values; they are stored and told like these.
enum class RateControlState : std::uint32_t {
    normal = 0,
    blocked = 1,
};

class Entry : public boost::enable_shared_from_this<Entry> {
  public:
    // Selects a counter. Numbered from 1, because a reason of 0 means that no counter caused a block; any other value
    // selects none.
    enum AttributeType : std::uint32_t { Attribute1 = 1, Attribute2, Attribute3, Attribute4, Attribute5 };

    // The counters of one period.
    struct Record {
        Record() = default;
        Record(unsigned int c1, unsigned int c2, unsigned int c3, unsigned int c4, unsigned int c5)
            : count1(c1), count2(c2), count3(c3), count4(c4), count5(c5) {}
        bool operator==(Record const&) const = default;

        std::uint32_t count1 = 0;
        std::uint32_t count2 = 0;
        std::uint32_t count3 = 0;
        std::uint32_t count4 = 0;
        std::uint32_t count5 = 0;
        std::uint32_t reserved = 0; // nobody counts here; travels with the record
    };
    // By period, ascending. One block of memory: six periods take 168 bytes.
    using Records = boost::container::flat_map<std::uint32_t, Record>;

    Entry() = default;
    virtual ~Entry() = default;
    Entry(Entry const&) = delete;
    Entry& operator=(Entry const&) = delete;

    // Adds `amount` to a counter of `period`, wrapping at 2^32. The period exists afterwards, whatever the type.
    // Throws std::bad_alloc and then has changed nothing. Takes `s_lock` exclusively.
    void increment(AttributeType type, unsigned int period, unsigned int amount) const VELLUM_EXCLUDES(s_lock);
    // Makes `record` the whole record of `period`. Throws and locks like increment().
    void add(unsigned int period, Record const& record) VELLUM_EXCLUDES(s_lock);

    // Adds the totals at `now` (seconds since the epoch) to `out`, which the caller has zeroed. Forgets older periods.
    // Takes `s_lock` in upgrade mode: beside listings, but not beside another totals() or a change.
    void totals(long now, SenderRateControlRecord& out) const VELLUM_EXCLUDES(s_lock);
    // The same from a period on. It erases under whatever hold of `s_lock` the caller has; shared is enough.
    void totalsNoLock(unsigned int firstPeriod, SenderRateControlRecord& out) const VELLUM_REQUIRES_SHARED(s_lock);

    // The smallest and the largest period held, 0 when there is none. Need no hold of `s_lock`.
    unsigned int firstPeriod() const;
    unsigned int lastPeriod() const;
    // A copy, since others may forget periods while it is walked. The caller holds `s_lock` where it wants what it
    // reads here to agree with something else; the copy itself is whole without it.
    Records records() const;

    // Forgets every period, so that totals start at 0 again; state, reason and end stay. Answers how many periods there
    // were. Takes `s_lock` exclusively.
    std::size_t forget() VELLUM_EXCLUDES(s_lock);

    // Tells the processor that totals of these entries will be asked for at once.
    static void prefetchRecords(Entry const* const* entries, std::size_t count);

    // No lock. Three reads are not one moment: a change or reset() may fall between them.
    RateControlState state() const { return m_state.load(std::memory_order_relaxed); }
    long blockedUntil() const { return m_blockedUntil; } // seconds since the epoch, 0 when not blocked
    AttributeType blockedReason() const { return m_blockedReason.load(std::memory_order_relaxed); } // 0: no counter

    // Take `s_lock` exclusively.
    void state(RateControlState state) VELLUM_EXCLUDES(s_lock);
    void blockedUntil(long time) VELLUM_EXCLUDES(s_lock);
    void blockedReason(AttributeType reason) VELLUM_EXCLUDES(s_lock);
    // Sets all three to 0; the records stay. Takes no lock.
    void reset();

    static SharedMutex s_lock;

  private:
    static Mutex s_recordsLock VELLUM_ACQUIRED_AFTER(s_lock);

    mutable Records m_records VELLUM_GUARDED_BY(s_recordsLock);
    // Atomics: written under s_lock or by reset(), read by anybody.
    RelaxedTime m_blockedUntil;
    std::atomic<AttributeType> m_blockedReason{AttributeType{}};
    std::atomic<RateControlState> m_state{RateControlState::normal};
};

// A counted handle on an entry. What the cache has evicted lives on for those who still hold a handle.
class RefEntry {
  public:
    // A new entry, or an empty handle.
    explicit RefEntry(bool create);
    virtual ~RefEntry() = default;
    RefEntry(RefEntry const&) = default;
    RefEntry& operator=(RefEntry const&) = default;

    bool isNull() const { return m_entry == nullptr; }
    explicit operator bool() const { return !isNull(); }
    // The entry; using an empty handle is a programming error.
    Entry* operator->() const { return m_entry.operator->(); }
    Entry& operator*() const { return *m_entry; }

  private:
    boost::shared_ptr<Entry> m_entry;
};

} // namespace SenderRateControl
} // namespace Vellum
