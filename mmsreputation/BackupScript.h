// The SQL script of an endpoint backup: all entries as they are at one moment, as the text that replaces both tables.
#pragma once

#include "foundation/database/LeftOut.h"
#include "mmsreputation/RefCache.h"

#include <cstddef>
#include <cstdint>
#include <ostream>
#include <vector>

namespace Vellum::MMSReputation {

class BackupSnapshot {
  public:
    // Purges the cache, then copies what has records. Holds Entry::s_mutex, then the cache's lock, both exclusively:
    // for about a millisecond with a full cache. Throws Exception without a configuration, std::bad_alloc.
    explicit BackupSnapshot(Cache& cache);

    struct Rows {
        std::uint64_t subscribers = 0;
        std::uint64_t records = 0;
        std::uint64_t leftOut = 0; // subscribers or records that no row can hold
    };
    // Writes the whole script, nothing held. What no row can hold is left out and logged (0x3000166).
    Rows write(std::ostream& out) const;

  private:
    struct Slice {
        std::uint32_t period, spam, infected;
    };
    struct Subscriber {
        MSISDN number;
        long expiry;       // seconds since the epoch
        std::size_t first; // of his slices in m_slices; they end where the next one's begin
    };

    std::size_t endOf(std::size_t subscriber) const;
    std::uint64_t writeRecords(std::ostream& out, Vellum::Database::LeftOut& leftOut) const;
    std::uint64_t writeExpiries(std::ostream& out) const;

    std::vector<Subscriber> m_subscribers; // ascending by number
    std::vector<Slice> m_slices;
};

} // namespace Vellum::MMSReputation
