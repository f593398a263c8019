// Messages on their way to the counters. Counting takes the families' locks exclusively, and one that somebody reads
// the whole of, which a listing does for as long as its client takes, is not to be had meanwhile: mail does not wait
// for that. A thread of its own counts, in the order in which the messages ended.
//
//   front -> messageEnded() -> queue -> thread -> the counting observer
//
// Whoever adds a message waits for it to be counted only while counting goes on at its usual pace, so that what a tool
// shows after a message includes it; from the first message that takes longer than `patience` until the queue is empty
// again nobody waits. Bounded: what comes beyond is not counted, and said (at most `burst` lines a minute).
#pragma once

#include "daemon/MessageSummary.h"
#include "foundation/NoteLimiter.h"

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>
#include <thread>
#include <utility>

namespace Vellum::Daemon {

// Thread-safe.
class CountQueue : public MessageObserver {
  public:
    static constexpr std::size_t most = 100'000;
    static constexpr std::chrono::milliseconds patience{20};
    static constexpr unsigned int burst = 10;

    // The observer is borrowed; it is called by this object's thread alone. Throws std::system_error.
    explicit CountQueue(MessageObserver& counts, std::size_t mostHeld = most);
    ~CountQueue() override; // counts what is left
    CountQueue(CountQueue const&) = delete;
    CountQueue& operator=(CountQueue const&) = delete;

    // Throws std::bad_alloc, and has not counted the message then.
    void messageEnded(MessageSummary const& message, long now) override;

    // Until everything is counted that was added before.
    void waitUntilDone();

  private:
    void work();
    void count(MessageSummary const& message, long now);

    MessageObserver& m_counts;
    std::size_t const m_most;
    NoteLimiter m_notes{burst, std::chrono::minutes(1)};
    std::mutex m_mutex;
    std::condition_variable m_arrived;  // for the thread that counts
    std::condition_variable m_progress; // for who waits for it
    // Under m_mutex. A message stays in front until it is counted.
    std::deque<std::pair<MessageSummary, long>> m_waiting;
    std::uint64_t m_counted = 0; // since the start
    bool m_slow = false;         // one took longer than the patience, and the queue was not empty since
    bool m_ending = false;
    std::thread m_thread; // the last, so that it finds everything there
};

} // namespace Vellum::Daemon
