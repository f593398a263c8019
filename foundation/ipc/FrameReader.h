// Takes a connection's bytes as they come and finds the units in them.
//
// Memory: none while nothing is held; then what has really arrived (not what a header announces), up to one frame of
// the greatest size and one piece of input. What goes beyond `freeBytes` comes out of the shared budget.
// One thread at a time.
#pragma once

#include "foundation/ipc/Budget.h"
#include "foundation/ipc/Pdu.h"

#include <cstddef>
#include <memory>

namespace Vellum::IPC {

class FrameReader {
  public:
    static constexpr std::size_t freeBytes = 16U << 10;

    enum class State {
        empty,     // nothing held
        partial,   // the beginning of a unit
        complete,  // at least one whole unit: take() it
        oversized, // the next unit says that it is longer than allowed; final
    };

    // `maxFrameBytes` counts the header.
    FrameReader(std::size_t maxFrameBytes, Budget& budget) : m_maxFrameBytes(maxFrameBytes), m_budget(budget) {}
    ~FrameReader();
    FrameReader(FrameReader const&) = delete;
    FrameReader& operator=(FrameReader const&) = delete;

    // Appends a copy. False, and nothing is appended, when the budget has no memory for it.
    [[nodiscard]] bool append(char const* bytes, std::size_t length);
    State state() const;
    // Moves the first unit into `into`. Only when complete.
    void take(Pdu& into);
    // The length that an oversized unit announces, header included.
    std::size_t announced() const;

  private:
    char const* first() const { return m_bytes.get() + m_begin; }
    std::size_t held() const { return m_end - m_begin; }
    bool grow(std::size_t needed);
    void release();

    std::size_t const m_maxFrameBytes;
    Budget& m_budget; // borrowed; outlives all readers
    std::unique_ptr<char[]> m_bytes;
    std::size_t m_capacity = 0;
    std::size_t m_begin = 0; // held: [m_begin, m_end)
    std::size_t m_end = 0;
};

} // namespace Vellum::IPC
