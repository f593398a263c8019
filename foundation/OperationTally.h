// How often the process has done something that takes long, how that went and how long it took: for statistics.
#pragma once

#include "foundation/Locks.h"

#include <chrono>
#include <cstdint>
#include <map>
#include <string>
#include <utility>

namespace Vellum {

enum class Operation : std::uint8_t {
    backup,  // by family
    load,    // by cache
    request, // of port 29001, by the number of its type
};

struct OperationTotals {
    std::uint64_t succeeded = 0;
    std::uint64_t failed = 0;
    std::chrono::nanoseconds time{0}; // of both together
    std::chrono::nanoseconds lastTime{0};
    long lastSuccess = 0; // when it began, seconds since the epoch; 0: never
};

// Thread-safe; the lock is held for moments. Not for the way of a decision.
class OperationTally {
  public:
    using Clock = std::chrono::steady_clock;

    // The process's; never destroyed, since detached threads may outlive main().
    static OperationTally& instance();

    void note(Operation operation, std::string const& of, bool succeeded, std::chrono::nanoseconds time,
              long startedAt = 0);
    // By what it was of.
    std::map<std::string, OperationTotals> all(Operation operation) const;

  private:
    mutable Mutex m_lock;
    std::map<std::pair<Operation, std::string>, OperationTotals> m_totals VELLUM_GUARDED_BY(m_lock);
};

// One operation, noted at the end of its life; it has failed unless it says otherwise.
class TalliedOperation {
  public:
    TalliedOperation(Operation operation, std::string of) : m_operation(operation), m_of(std::move(of)) {}
    ~TalliedOperation();
    TalliedOperation(TalliedOperation const&) = delete;
    TalliedOperation& operator=(TalliedOperation const&) = delete;

    void hasSucceeded(bool succeeded = true) { m_succeeded = succeeded; }

  private:
    Operation const m_operation;
    std::string const m_of;
    OperationTally::Clock::time_point const m_start = OperationTally::Clock::now();
    bool m_succeeded = false;
};

} // namespace Vellum
