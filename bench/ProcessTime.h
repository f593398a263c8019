// The CPU time of a process and of all processes below it.
#pragma once

#include <cstdint>
#include <map>
#include <sys/types.h>

namespace Vellum::Bench {

class ProcessTime {
  public:
    // Begins to count.
    explicit ProcessTime(pid_t root) : m_root(root), m_begin(used(root)) {}

    // Used since then by the processes that still live; one that has come since counts from its birth.
    std::uint64_t nanoseconds() const;

  private:
    static std::map<pid_t, std::uint64_t> used(pid_t root);

    pid_t m_root;
    std::map<pid_t, std::uint64_t> m_begin;
};

} // namespace Vellum::Bench
