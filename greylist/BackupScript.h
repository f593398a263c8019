// The SQL script of a greylist backup: both caches as they were at one moment, as the text that replaces both tables.
#pragma once

#include "greylist/DynamicExemptCache.h"
#include "greylist/TupleCache.h"

#include <cstdint>
#include <optional>
#include <ostream>
#include <vector>

namespace Vellum::Database {
class LeftOut;
}

namespace Vellum::GreyList {

// The times of both caches and where their identities are. Both caches are pinned meanwhile, so the identities stay,
// and text is made from them when nobody is held up any more. (Copying a million handles would count in a million
// places.)
class BackupSnapshot {
  public:
    // Holds both caches' locks shared, the tuple cache's first, while it copies; room is made beforehand. The caches
    // outlive the snapshot. Throws std::bad_alloc.
    BackupSnapshot(_TupleCache const& tuples, _DynamicExemptCache const& exemptions);

    // What a script holds.
    struct Rows {
        std::uint64_t tuples = 0;
        std::uint64_t exemptions = 0;
        std::uint64_t leftOut = 0;
    };
    // Writes the whole script. Records that no row can hold are left out and logged.
    Rows write(std::ostream& out) const;

    // How long the locks were held, in nanoseconds.
    std::uint64_t nanosecondsHeld() const { return m_nanosecondsHeld; }
    std::size_t tuples() const { return m_tuples.size(); }

  private:
    struct Tuple {
        _TupleId const* id;
        std::int64_t firstSeen;
        std::int64_t expiry;
    };
    struct Exemption {
        DynamicExemptId const* id;
        std::int64_t firstSeen;
        std::int64_t expiry;
    };

    void writeTuples(std::ostream& out, Database::LeftOut& leftOut) const;
    void writeExemptions(std::ostream& out, Database::LeftOut& leftOut) const;

    std::vector<Tuple> m_tuples;
    std::vector<Exemption> m_exemptions;
    std::uint64_t m_nanosecondsHeld = 0;
    std::optional<_TupleCache::Pin> m_pinTuples;
    std::optional<_DynamicExemptCache::Pin> m_pinExemptions;
};

} // namespace Vellum::GreyList
