// A periodic job.
//
//   class NightlyReport : public Cron::JobImpl { public: int task() const override; };
//   Cron::MyJob<NightlyReport> job;
//   job->period(Cron::Period(86400, 0));
//   Cron::Crontab::instance(true).add(job);
#pragma once

#include "foundation/cron/Period.h"
#include "include2/VellumRefcounted.h"

#include <optional>
#include <utility>

namespace Vellum::Cron {

class JobImpl : public virtual RefImpl {
  public:
    // Does the work; 0, or -1 after a failure that it has logged. Runs on the table's one thread, so a job that takes
    // long starts a thread of its own.
    virtual int task() const = 0;

    // Set before the job is added.
    void period(Period const& period) { m_period = period; }
    std::optional<Period> const& period() const { return m_period; }

  private:
    std::optional<Period> m_period;
};

// A counted handle on a job.
class Job : public Ref<JobImpl> {
  public:
    // Adopts the reference that the job is born with.
    explicit Job(JobImpl* job) : Ref<JobImpl>(job) {}
};

// A handle on a new T, or on one that was just made.
template <class T>
class MyJob : public Job {
  public:
    MyJob() : Job(new T) {}
    explicit MyJob(T* created) : Job(created) {}
};

} // namespace Vellum::Cron
