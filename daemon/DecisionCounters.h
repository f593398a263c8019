// How often each reason has decided a message since the start.
#pragma once

#include "daemon/Verdict.h"

#include <array>
#include <atomic>
#include <cstdint>

namespace Vellum::Daemon {

// Thread-safe; a reader may see one count of a moment ago beside another of now.
class DecisionCounters {
  public:
    void count(Verdict::Reason reason) { m_counts[index(reason)].fetch_add(1, std::memory_order_relaxed); }
    std::uint64_t of(Verdict::Reason reason) const { return m_counts[index(reason)].load(std::memory_order_relaxed); }

  private:
    static std::size_t index(Verdict::Reason reason) { return static_cast<std::size_t>(reason); }

    std::array<std::atomic<std::uint64_t>, reasonCount> m_counts{};
};

} // namespace Vellum::Daemon
