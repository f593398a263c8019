// What a connection still has to send: pieces of 64 KiB, filled at the back and written from the front.
//
// Memory: the first piece is the connection's own, every further one comes out of the shared budget and counts against
// the connection's bound. A connection that only waits is told to release() it all.
// One thread at a time.
#pragma once

#include "foundation/ipc/Budget.h"

#include <cstddef>
#include <deque>
#include <memory>

namespace Vellum::IPC {

class OutputQueue {
  public:
    static constexpr std::size_t pieceBytes = 64U << 10;

    // `bound` in bytes, rounded down to pieces; at least one piece is always there.
    OutputQueue(std::size_t bound, Budget& budget);
    ~OutputQueue();
    OutputQueue(OutputQueue const&) = delete;
    OutputQueue& operator=(OutputQueue const&) = delete;

    // Bytes that fit without another piece.
    std::size_t room() const { return m_pieces.empty() ? 0 : pieceBytes - m_used; }
    // Appends; at most room() bytes.
    void append(void const* bytes, std::size_t length);
    // Takes another piece, when room() is 0. False at the bound, or when the budget is used up.
    bool grow();

    bool isEmpty() const { return m_pieces.empty() || (m_pieces.size() == 1 && m_written == m_used); }
    // Writes what `socket` takes without waiting; answers the number of bytes. Throws std::system_error when
    // the peer is gone.
    std::size_t writeTo(int socket);
    // Drops what is pending and gives all memory back.
    void release();

  private:
    void drop(std::size_t written);

    std::size_t const m_maxPieces;
    Budget& m_budget; // borrowed; outlives all queues
    std::deque<std::unique_ptr<char[]>> m_pieces;
    std::size_t m_written = 0; // of the first piece
    std::size_t m_used = 0;    // of the last piece
};

} // namespace Vellum::IPC
