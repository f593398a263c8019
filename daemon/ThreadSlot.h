// A small number for each thread, for statistics that threads keep apart so that they do not slow each other.
#pragma once

namespace Vellum::Daemon {

// A number is one thread's alone until that thread ends; then another may get it, and sees all that the first has
// written. Threads that find no number left share `shared`.
class ThreadSlot {
  public:
    static constexpr unsigned int own = 63; // numbers that one thread has for itself, from 0 on
    static constexpr unsigned int shared = own;
    static constexpr unsigned int count = own + 1;

    // Of this thread. Takes a lock on the first call of a thread, and at its end; never afterwards.
    static unsigned int current();
};

} // namespace Vellum::Daemon
