#include "foundation/cron/Crontab.h"

#include "foundation/Exception.h"
#include "foundation/Logger.h"
#include "foundation/ServiceThread.h"

#include <algorithm>
#include <chrono>
#include <exception>
#include <string>
#include <utility>

namespace Vellum::Cron {
namespace {

// The clock is looked at again after so long, whatever the system thinks of clocks that are set.
constexpr long longestSleepSeconds = 60;

void logFailure(std::string const& reason) {
    Logger::instance(false).note(Logger::Severity::error, "a periodic job failed: " + reason);
}

} // namespace

Crontab& Crontab::instance(bool runs) {
    static auto& table = *new Crontab;
    if (runs) {
        table.start();
    }
    return table;
}

Crontab::Crontab(std::function<long()> clock) : m_clock(std::move(clock)) {}

Crontab::~Crontab() {
    stop();
}

void Crontab::add(Job const& job) {
    auto const& period = job->period();
    if (!period) {
        throw Exception("Crontab::add", Exception::failure, "Crontab").stringParameter("the job has no period");
    }
    std::lock_guard const holding(m_lock);
    m_jobs.push_back(job);
    m_schedule.add(*period, m_clock());
    launch();
    m_changed.notify_all();
}

std::vector<Job> Crontab::jobs() const {
    std::lock_guard const holding(m_lock);
    return m_jobs;
}

std::size_t Crontab::runDue() {
    std::vector<Job> jobs;
    {
        std::lock_guard const holding(m_lock);
        for (std::size_t const place : m_schedule.due(m_clock())) {
            jobs.push_back(m_jobs[place]);
        }
    }
    for (Job const& job : jobs) {
        try {
            job->task(); // -1 was logged by the job
        } catch (std::exception const& failed) {
            logFailure(failed.what());
        } catch (...) {
            logFailure("it threw something that is no exception");
        }
    }
    return jobs.size();
}

void Crontab::start() {
    std::lock_guard const holding(m_lock);
    m_wanted = true;
    launch();
}

void Crontab::launch() {
    if (m_wanted && !m_jobs.empty() && !m_thread.joinable()) {
        m_stopping = false;
        m_thread = startServiceThread("cron", [this] { run(); });
    }
}

void Crontab::stop() {
    std::thread thread;
    {
        std::lock_guard const holding(m_lock);
        m_wanted = false;
        m_stopping = true;
        thread.swap(m_thread);
    }
    m_changed.notify_all();
    if (thread.joinable()) {
        thread.join();
    }
}

void Crontab::run() {
    for (;;) {
        runDue();
        std::unique_lock holding(m_lock);
        if (m_stopping) {
            return;
        }
        long const now = m_clock();
        long const wait = m_schedule.next(now).value_or(now + longestSleepSeconds) - now;
        // By the wall clock, so that setting it forward wakes the thread.
        auto const sleep = std::chrono::seconds(std::clamp(wait, 0L, longestSleepSeconds));
        m_changed.wait_until(holding, std::chrono::system_clock::now() + sleep);
    }
}

} // namespace Vellum::Cron
