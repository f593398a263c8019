// The SQL script of a greylist backup: both caches as they were at one moment, as the text that replaces both tables.
#pragma once

#include "greylist/DynamicExemptCache.h"
#include "greylist/TupleCache.h"

#include <cstdint>
#include <ostream>
#include <vector>

namespace Vellum::GreyList {

// Copies of the handles and times of both caches. The identities themselves are shared, so the copy is quick, and text
// is made from it when nobody is held up any more.
class BackupSnapshot {
  public:
    // Holds both caches' locks shared, the tuple cache's first, while it copies; room is made beforehand.
    // Throws std::bad_alloc.
    BackupSnapshot(_TupleCache const& tuples, _DynamicExemptCache const& exemptions);

    // Writes the whole script. Records that no row can hold are left out and logged.
    void write(std::ostream& out) const;

    // How long the locks were held, in nanoseconds.
    std::uint64_t nanosecondsHeld() const { return m_nanosecondsHeld; }
    std::size_t tuples() const { return m_tuples.size(); }

  private:
    struct Tuple {
        TupleId id;
        std::int64_t firstSeen;
        std::int64_t expiry;
    };
    struct Exemption {
        DynamicExemptId id;
        Status status;
    };

    void writeTuples(std::ostream& out, class LeftOut& leftOut) const;
    void writeExemptions(std::ostream& out, class LeftOut& leftOut) const;

    std::vector<Tuple> m_tuples;
    std::vector<Exemption> m_exemptions;
    std::uint64_t m_nanosecondsHeld = 0;
};

} // namespace Vellum::GreyList
