// Runs a task every minute, and on demand, on a thread of its own, so that a slow database holds up neither the job
// table nor a signal.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

namespace Vellum::Daemon {

class Housekeeping {
  public:
    // The first run comes after one interval. What the task throws is logged.
    explicit Housekeeping(std::function<void()> task, std::chrono::seconds interval = std::chrono::seconds(60));
    ~Housekeeping(); // waits for a run in hand
    // The next run begins at once; the one after it an interval later. Does not wait.
    void soon();
    Housekeeping(Housekeeping const&) = delete;
    Housekeeping& operator=(Housekeeping const&) = delete;

  private:
    void run();

    std::function<void()> const m_task;
    std::chrono::seconds const m_interval;
    std::mutex m_lock;
    std::condition_variable m_changed;
    bool m_stopping = false; // under m_lock, as is the next
    bool m_soon = false;
    std::thread m_thread;
};

} // namespace Vellum::Daemon
