// Threads that each do one thing again and again, until all have done enough of it.
//
//   Crew crew(std::chrono::seconds(5));
//   crew.add("mail", 3000, [&] { sendOne(); });
//   crew.add("listings", 20, [&] { listAll(); });
//   for (auto const& [name, times] : crew.wait()) { ... }
#pragma once

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <map>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace Vellum {

class Crew {
  public:
    // Works for so long at least, from now on.
    explicit Crew(std::chrono::seconds duration) : m_end(std::chrono::steady_clock::now() + duration) {}
    Crew(Crew const&) = delete;
    Crew& operator=(Crew const&) = delete;

    // VELLUM_STRESS_SECONDS, or what is usual.
    static std::chrono::seconds duration(int usualSeconds) {
        char const* const seconds = std::getenv("VELLUM_STRESS_SECONDS");
        return std::chrono::seconds(seconds == nullptr ? usualSeconds : std::atoi(seconds));
    }

    // A thread that does `work` so many times at least. One that throws ends the work of all.
    void add(std::string const& name, int leastTimes, std::function<void()> work) {
        ++m_unfinished;
        m_threads.emplace_back([this, name, leastTimes, work = std::move(work)] {
            int times = 0;
            try {
                while (times < leastTimes || goOn()) {
                    if (m_failed) {
                        break;
                    }
                    work();
                    if (++times == leastTimes) {
                        --m_unfinished;
                    }
                }
            } catch (std::exception const& failed) {
                fail(name + ": " + failed.what());
            }
            std::lock_guard const hold(m_lock);
            m_times[name] += times;
        });
    }
    // Waits for the end of all; answers how often each was done. Throws what one of them threw.
    std::map<std::string, int> wait() {
        --m_unfinished;
        for (std::thread& thread : m_threads) {
            thread.join();
        }
        m_threads.clear();
        if (m_failed) {
            throw std::runtime_error(m_problem);
        }
        return m_times;
    }

  private:
    bool goOn() const { return m_unfinished != 0 || std::chrono::steady_clock::now() < m_end; }
    void fail(std::string const& problem) {
        std::lock_guard const hold(m_lock);
        if (!m_failed.exchange(true)) {
            m_problem = problem;
        }
    }

    std::chrono::steady_clock::time_point const m_end;
    std::atomic<int> m_unfinished{1}; // threads, and whoever adds them
    std::atomic<bool> m_failed{false};
    std::mutex m_lock;
    std::map<std::string, int> m_times; // under m_lock
    std::string m_problem;              // of the first that failed; under m_lock
    std::vector<std::thread> m_threads;
};

} // namespace Vellum
