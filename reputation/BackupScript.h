// The SQL script of a backup of sender reputation: the cache as it was at one moment, as the text that replaces both
// tables.
#pragma once

#include "foundation/IPAddress.h"
#include "reputation/Cache.h"

#include <array>
#include <cstdint>
#include <ostream>
#include <vector>

namespace Vellum::Database {
class LeftOut;
}

namespace Vellum::Reputation {

// What the tables keep of every cached address, copied; text is made of it when nobody is held up any more.
class BackupSnapshot {
  public:
    // Holds Entry::s_lock shared, then the cache's lock shared, while it copies: some milliseconds for a full cache,
    // and writers wait as long. Room is made beforehand. Throws std::bad_alloc.
    explicit BackupSnapshot(Cache const& cache);

    // What a script holds.
    struct Rows {
        std::uint64_t records = 0;
        std::uint64_t addresses = 0;
        std::uint64_t leftOut = 0; // records that no row can hold
    };
    // Writes the whole script: every period held, in ascending order of address and period; a state for each address
    // that holds a record. What no row can hold is left out and logged; a counter beyond the column's range is written
    // as its end, and logged.
    Rows write(std::ostream& out) const;

    // How long the locks were held, in nanoseconds.
    std::uint64_t nanosecondsHeld() const { return m_nanosecondsHeld; }

  private:
    static constexpr std::size_t storedCounters = 5;
    struct Hour {
        std::uint32_t period;
        std::array<std::uint32_t, storedCounters> counters; // in slot order
    };
    struct Address {
        IPAddress address;
        ReputationState state;
        std::size_t endOfHours; // in m_hours; they begin where those of the address before end
    };

    void makeRoomFor(Cache const& cache);
    void copy(Cache::Pair const& pair) VELLUM_REQUIRES_SHARED(Entry::s_lock);
    std::uint64_t writeRecords(std::ostream& out, Vellum::Database::LeftOut& leftOut) const;
    std::uint64_t writeStates(std::ostream& out) const;

    std::vector<Address> m_addresses;
    std::vector<Hour> m_hours;
    std::uint64_t m_nanosecondsHeld = 0;
};

} // namespace Vellum::Reputation
