// How often each reason has decided a message since the start, and how.
#pragma once

#include "daemon/Verdict.h"

#include <array>
#include <atomic>
#include <cstdint>

namespace Vellum::Daemon {

// Thread-safe; a reader may see one count of a moment ago beside another of now.
class DecisionCounters {
  public:
    void count(Verdict const& verdict) {
        m_counts[index(verdict.action, verdict.reason)].fetch_add(1, std::memory_order_relaxed);
    }
    std::uint64_t of(Verdict::Action action, Verdict::Reason reason) const {
        return m_counts[index(action, reason)].load(std::memory_order_relaxed);
    }
    // With whatever action.
    std::uint64_t of(Verdict::Reason reason) const {
        return of(Verdict::Action::pass, reason) + of(Verdict::Action::defer, reason) +
               of(Verdict::Action::reject, reason);
    }

  private:
    static std::size_t index(Verdict::Action action, Verdict::Reason reason) {
        return static_cast<std::size_t>(action) * reasonCount + static_cast<std::size_t>(reason);
    }

    std::array<std::atomic<std::uint64_t>, std::size_t{actionCount} * reasonCount> m_counts{};
};

} // namespace Vellum::Daemon
