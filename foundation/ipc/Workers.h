// Threads that run tasks one each, in the order in which they were submitted.
//
// A thread is made when a task finds none free, up to the bound; then tasks wait in a queue, which whoever submits
// bounds (a dispatcher has at most one task for each connection). Thread-safe.
#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace Vellum::IPC {

class Workers {
  public:
    // Threads get that name (at most 15 characters) in tools.
    Workers(std::string name, unsigned int most);
    ~Workers(); // stops
    Workers(Workers const&) = delete;
    Workers& operator=(Workers const&) = delete;

    // `task` lets no exception escape. Throws std::system_error when there is no thread at all and none can be made.
    void submit(std::function<void()> task);
    // Drops the tasks that have not begun and waits for the others. Nothing runs afterwards.
    void stop();

  private:
    void run();
    void addThread(); // under m_lock

    std::string const m_name;
    unsigned int const m_most;
    std::mutex m_lock;
    std::condition_variable m_changed;
    std::deque<std::function<void()>> m_waiting; // under m_lock, like the rest
    std::vector<std::thread> m_threads;
    std::size_t m_free = 0; // threads that wait for a task
    bool m_stopping = false;
};

} // namespace Vellum::IPC
