// The time slice in which messages of a subscriber are counted.
//
// Slices are whole multiples of their length since the epoch, whatever the scoring window began with: with a window of
// 30 minutes and 15 slices, slice i is the two minutes from i * 120 seconds on.
#pragma once

#include <atomic>
#include <cstdint>

namespace Vellum::MMSReputation {

// A value.
class Period {
  public:
    // Slices that one scoring window is divided into.
    static constexpr std::uint32_t slicesPerWindow = 15;

    // The slice of `time` (seconds since the epoch; 0 for now). windowSize: minutes, 0 for the configuration's.
    // Throws Exception ("EndpointReputation::Period") when the window or the number of slices is zero, or the window
    // has fewer minutes than slices; Exception when no configuration is installed and one is asked for.
    Period(long time, unsigned int windowSize, unsigned int numberRecords);
    // The slice of that number, as a table holds it.
    explicit Period(std::uint32_t slice) : index(slice) {}
    virtual ~Period() = default;
    Period(Period const&) = default;
    Period& operator=(Period const&) = default;

    // Length of a slice in minutes, of the period that was last made from a time. Only for those who want to know:
    // an index is computed with the length its own constructor was given.
    static std::atomic<std::uint32_t> s_divisor;

    std::uint32_t index;
};

} // namespace Vellum::MMSReputation
