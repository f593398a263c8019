// The process's table of periodic jobs, with the thread that runs them.
//
// A job never starts twice for the same instant, also when the clock is set back; an instant that was missed (the
// process was stopped, the clock was set forward) is made up for once, however many were missed. A job that throws is
// logged, and the table goes on.
#pragma once

#include "foundation/cron/Job.h"
#include "foundation/cron/Schedule.h"

#include <condition_variable>
#include <ctime>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace Vellum::Cron {

class Crontab {
  public:
    // The process's table; never destroyed. With true, its thread runs from the first job on.
    static Crontab& instance(bool runs);

    // A table of one's own. `clock` answers the wall-clock time in seconds.
    explicit Crontab(std::function<long()> clock = [] { return static_cast<long>(std::time(nullptr)); });
    ~Crontab(); // stops
    Crontab(Crontab const&) = delete;
    Crontab& operator=(Crontab const&) = delete;

    // Throws Exception when the handle is empty or the job has no period. Thread-safe, like everything here.
    void add(Job const& job);
    // The jobs, in the order in which they were added.
    std::vector<Job> jobs() const;
    // Runs what is due now, on the caller's thread. Answers the number of jobs run. The thread does nothing else.
    std::size_t runDue();

    // Starts the thread (now, or with the first job); stop() ends it and waits for the job in hand. Jobs are kept.
    void start();
    void stop();

  private:
    void run();
    void launch(); // under m_lock

    std::function<long()> const m_clock;
    mutable std::mutex m_lock;
    std::condition_variable m_changed;
    Schedule m_schedule;     // under m_lock
    std::vector<Job> m_jobs; // by their place in the schedule; under m_lock
    bool m_wanted = false;   // start() was called; under m_lock
    bool m_stopping = false; // under m_lock
    std::thread m_thread;    // under m_lock
};

} // namespace Vellum::Cron
