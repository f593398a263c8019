// How many different tuples of a network and sender domain have passed.
#pragma once

#include "foundation/Locks.h"
#include "greylist/DynamicExemptId.h"
#include "include2/LRUCache.h"

#include <cstddef>
#include <cstdint>
#include <vector>

namespace Vellum::Daemon {

// Keeps, for each pair, a hash of every tuple counted, so that no tuple counts twice: not when it was forgotten,
// expired and passed again, and not when counts are rebuilt while mail comes in. A collision of hashes costs one tuple.
// Bounded: the pair counted longest ago goes first, and starts again from nothing.
// Thread-safe.
class PassCounts {
  public:
    // At most `pairs` pairs are kept.
    explicit PassCounts(std::uint32_t pairs) : m_counts(pairs) {}

    // Counts a tuple and answers how many of the pair are counted then. At most `most` are kept: one more is answered
    // as most + 1, and not remembered.
    std::size_t count(GreyList::DynamicExemptId const& pair, std::uint64_t tuple, std::size_t most);
    void forget(GreyList::DynamicExemptId const& pair) { m_counts.remove(pair); }
    std::size_t pairs() const;

  private:
    LRUCache<GreyList::DynamicExemptId, std::vector<std::uint64_t>> m_counts; // under its own lock
};

} // namespace Vellum::Daemon
