#include "foundation/ipc/Workers.h"

#include "foundation/ServiceThread.h"

#include <algorithm>
#include <system_error>
#include <utility>

namespace Vellum::IPC {

Workers::Workers(std::string name, unsigned int most) : m_name(std::move(name)), m_most(std::max(most, 1U)) {}

Workers::~Workers() {
    stop();
}

void Workers::submit(std::function<void()> task) {
    std::lock_guard const holding(m_lock);
    if (m_stopping) {
        return;
    }
    m_waiting.push_back(std::move(task));
    if (m_waiting.size() > m_free && m_threads.size() < m_most) {
        addThread();
    }
    m_changed.notify_one();
}

void Workers::addThread() {
    try {
        m_threads.push_back(startServiceThread(m_name, [this] { run(); }));
    } catch (std::system_error const&) {
        if (m_threads.empty()) {
            m_waiting.pop_back();
            throw;
        }
        // The task waits for a thread that there is.
    }
}

void Workers::run() {
    std::unique_lock holding(m_lock);
    for (;;) {
        ++m_free;
        m_changed.wait(holding, [this] { return m_stopping || !m_waiting.empty(); });
        --m_free;
        if (m_stopping) {
            return;
        }
        auto const task = std::move(m_waiting.front());
        m_waiting.pop_front();
        holding.unlock();
        task();
        holding.lock();
    }
}

void Workers::stop() {
    std::vector<std::thread> threads;
    {
        std::lock_guard const holding(m_lock);
        m_stopping = true;
        m_waiting.clear();
        threads.swap(m_threads);
    }
    m_changed.notify_all();
    for (std::thread& thread : threads) {
        thread.join();
    }
}

} // namespace Vellum::IPC
