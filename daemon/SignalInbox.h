// The signals that tell the daemon something, one after the other, for the main thread.
//
//   SignalInbox inbox({SIGTERM, SIGINT, SIGHUP});
//   while ((signal = inbox.next()) == SIGHUP) { reload(); }
//
// By handlers, not by waiting for blocked signals: the milter library has a thread of its own that waits for the same
// signals and would end the milter front at a SIGHUP. The kernel hands a signal of the process to a waiting thread only
// when the main thread has it blocked, so the main thread never has it blocked while an inbox is there. What is left is
// a signal that arrives while the waiting thread begins to wait, or right behind another one; whoever learns of such an
// end calls put().
#pragma once

#include "foundation/FileDescriptor.h"

#include <chrono>
#include <initializer_list>
#include <optional>
#include <vector>

namespace Vellum::Daemon {

// One at a time in a process, made and used by the main thread.
class SignalInbox {
  public:
    // Takes these signals from now on, and what was pending. Throws Exception.
    explicit SignalInbox(std::initializer_list<int> signals);
    // They are blocked again and have their default actions.
    ~SignalInbox();
    SignalInbox(SignalInbox const&) = delete;
    SignalInbox& operator=(SignalInbox const&) = delete;

    // Waits for the next one. The same signal sent again before it was taken may come once only.
    int next();
    // Waits for it at most so long; nothing when none came.
    std::optional<int> next(std::chrono::milliseconds patience);
    // As if the signal had arrived. Thread-safe; never waits.
    void put(int signal);

  private:
    std::optional<int> take(int milliseconds); // -1: for ever, but for an interruption

    std::vector<int> m_signals;
    FileDescriptor m_reading;
    FileDescriptor m_writing;
};

} // namespace Vellum::Daemon
