// What was seen of one client address lately: nine counters for each hour, an administrative state, and a score.
#pragma once

#include "foundation/Locks.h"

#include <boost/container/flat_map.hpp>
#include <boost/enable_shared_from_this.hpp>
#include <boost/shared_ptr.hpp>

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace Vellum::Reputation {

// Hours are counted from the epoch.
inline constexpr std::uint32_t secondsPerPeriod = 3600;
inline constexpr std::uint32_t scoredPeriods = 12; // the current hour and the eleven before it

// What an administrator has made of an address. It comes from the tables and goes into listings; any 32 bits may stand
// there. Nothing here acts on it.
enum class ReputationState : std::uint32_t { unset = 0, trusted = 1, watched = 2, blocked = 3 };
inline constexpr std::int32_t highestState = 3; // that a request may name

// Shared through RefEntry handles, so a listing or a backup may hold one that the cache has dropped.
//
// Threads: one lock, s_lock, guards the records of all entries together, so a change of one entry keeps readers of all
// others out for a moment. Where s_lock and the cache's lock are both held, s_lock is taken first. State, time of the
// last change and the ends of the range of periods are atomics: they are read without the lock.
class Entry : public boost::enable_shared_from_this<Entry> {
  public:
    // The counters, by slot. The first five are columns of the table "sender_reputation"; the others live in memory
    // only. What increment() keeps: invalidRecipients <= recipients; infected to extraVolume <= messageCount; flagged
    // >= messageCount, which is right: a flagged hour counts as flagged in full.
    enum class AttributeType : std::uint32_t {
        MessageCount = 0,
        Recipients = 1,
        InvalidRecipients = 2,
        Infected = 3,
        Spam = 4,
        ExtraTotal = 5,  // what the ratio of extraHits is taken of
        ExtraHits = 6,   // bad ones among them
        ExtraVolume = 7, // only makes the score's denominator larger
        Flagged = 8,
    };

    // Counters of one hour, in slot order.
    struct Record {
        static constexpr std::size_t slots = 9;

        // The four that no table keeps are 0.
        Record(unsigned int messages, unsigned int allRecipients, unsigned int invalid, unsigned int infectedMessages,
               unsigned int spamMessages)
            : messageCount(messages), recipients(allRecipients), invalidRecipients(invalid), infected(infectedMessages),
              spam(spamMessages) {}
        bool operator==(Record const&) const = default;

        std::uint32_t messageCount;
        std::uint32_t recipients;
        std::uint32_t invalidRecipients;
        std::uint32_t infected;
        std::uint32_t spam;
        std::uint32_t extraTotal = 0;
        std::uint32_t extraHits = 0;
        std::uint32_t extraVolume = 0;
        std::uint32_t flagged = 0;
    };
    static_assert(sizeof(Record) == 36);
    // By period, ascending; in one piece of memory, which a walk over all entries reads several times as fast as nodes.
    using Records = boost::container::flat_map<std::uint32_t, Record>;

    Entry() = default;
    virtual ~Entry() = default;
    Entry(Entry const&) = delete;
    Entry& operator=(Entry const&) = delete;

    // Without a lock: a listing may send the old or the new state, both are true.
    ReputationState state() const { return m_state.load(std::memory_order_relaxed); }
    // Takes s_lock exclusively. No change in the sense of lastModified().
    void state(ReputationState state);

    // Valid while s_lock is held, shared at least.
    Records const& records() const VELLUM_REQUIRES_SHARED(s_lock)
    { return m_records; }

    // Tells the processor that the records will be read soon.
    void prefetchRecords() const VELLUM_REQUIRES_SHARED(s_lock);

    // When a counter changed last, seconds since the epoch. Of an entry that was only loaded: the start of its newest
    // period, which from then on stays the answer until a counter changes; 0 without any record. Takes no lock.
    long lastModified() const;

    // Messages in the hour of `now` (seconds since the epoch, 0 for the clock's); 0 for an hour without a record.
    // Takes s_lock shared.
    std::uint32_t messageCount(long now) const;

    // Sets all counters of a period, whatever they were. No change in the sense of lastModified().
    // Takes s_lock exclusively. Throws std::bad_alloc.
    void add(unsigned int period, Record const& record);

    // Adds `amount` to a counter of `period`, whose record is made when there is none, and keeps the bounds that
    // AttributeType tells; sums wrap. A type of 9 or more changes no counter, and counts as a change all the same.
    // Takes s_lock exclusively: a decision may call it, nothing is waited for. Throws std::bad_alloc.
    void increment(AttributeType type, unsigned int period, unsigned int amount) const;
    // Takes `amount` from a counter, down to 0 at most; fewer recipients are fewer invalid ones too. A period without a
    // record stays so, and nothing has changed then. Takes s_lock exclusively.
    void decrement(AttributeType type, unsigned int period, unsigned int amount) const;

    // 0 to 100, higher is worse, from what the last twelve hours held. Drops records of older hours first: exclusively,
    // only when there are any; then s_lock is held shared.
    std::uint32_t score() const;
    // The same with another clock: `now` in seconds since the epoch, of which the lower 32 bits count.
    std::uint32_t scoreAndDrop(long now) const;
    // The score as seen at `now`, of periods from `firstPeriod` on. Drops nothing and takes no lock: the caller holds
    // it, shared at least.
    std::uint32_t score(long now, unsigned int firstPeriod) const VELLUM_REQUIRES_SHARED(s_lock);

    // The first of the twelve periods that count at `now`, as a listing takes them: signed 64-bit arithmetic.
    static std::uint32_t firstPeriodAt(long now);

    static SharedMutex s_lock;

  private:
    static constexpr std::int64_t none = -1;

    void changed() const;
    void noteRange() const VELLUM_REQUIRES(s_lock);
    void dropBefore(std::uint32_t first) const;
    std::uint32_t scoreFrom(std::uint32_t current, std::uint32_t firstPeriod) const VELLUM_REQUIRES_SHARED(s_lock);

    mutable Records m_records VELLUM_GUARDED_BY(s_lock); // counters are what a const handle may change
    std::atomic<ReputationState> m_state{ReputationState::unset};
    mutable std::atomic<long> m_lastModified{0}; // 0: not known yet
    // Of m_records, or `none`. Written under s_lock; read without it, by lastModified() and by score(), which looks
    // whether there is anything to drop before it asks for the lock alone.
    mutable std::atomic<std::int64_t> m_oldestPeriod{none};
    mutable std::atomic<std::int64_t> m_newestPeriod{none};
};

// A counted handle on an entry, or on none.
class RefEntry {
  public:
    // With `create` on a new, empty entry; otherwise on none.
    explicit RefEntry(bool create) : m_entry(create ? new Entry : nullptr) {}

    // Using an empty handle is a programming error.
    Entry* operator->() const { return m_entry.operator->(); }
    Entry& operator*() const { return *m_entry; }
    bool isNull() const { return !m_entry; }
    explicit operator bool() const { return !isNull(); }
    bool operator==(RefEntry const& other) const { return m_entry == other.m_entry; }

  private:
    boost::shared_ptr<Entry> m_entry;
};

} // namespace Vellum::Reputation
