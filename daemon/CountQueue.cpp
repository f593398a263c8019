#include "daemon/CountQueue.h"

#include "foundation/ServiceThread.h"

#include <exception>
#include <string>

namespace Vellum::Daemon {

CountQueue::CountQueue(MessageObserver& counts, std::size_t mostHeld)
    : m_counts(counts), m_most(mostHeld), m_thread(startServiceThread("mail-counts", [this] { work(); })) {}

CountQueue::~CountQueue() {
    {
        std::lock_guard<std::mutex> const hold(m_mutex);
        m_ending = true;
    }
    m_arrived.notify_one();
    m_thread.join();
}

void CountQueue::messageEnded(MessageSummary const& message, long now) {
    std::unique_lock<std::mutex> hold(m_mutex);
    if (m_waiting.size() >= m_most) {
        hold.unlock();
        m_notes.note(Logger::Severity::warning, "a message is not counted: " + std::to_string(m_most) +
                                                    " wait for somebody who reads all counters");
        return;
    }
    m_waiting.emplace_back(message, now);
    std::uint64_t const wanted = m_counted + m_waiting.size();
    bool const worthWaiting = !m_slow;
    hold.unlock(); // or who is woken would find it locked, and sleep again
    m_arrived.notify_one();
    if (worthWaiting) {
        hold.lock();
        bool const inTime = m_progress.wait_for(hold, patience, [&] { return m_counted >= wanted || m_slow; });
        m_slow = m_slow || !inTime;
    }
}

void CountQueue::waitUntilDone() {
    std::unique_lock<std::mutex> hold(m_mutex);
    std::uint64_t const wanted = m_counted + m_waiting.size();
    m_progress.wait(hold, [&] { return m_counted >= wanted; });
}

void CountQueue::work() {
    std::unique_lock<std::mutex> hold(m_mutex);
    for (;;) {
        m_arrived.wait(hold, [this] { return m_ending || !m_waiting.empty(); });
        if (m_waiting.empty()) {
            return;
        }
        auto const& [message, now] = m_waiting.front(); // stays in its place while others are added behind it
        hold.unlock();
        count(message, now);
        hold.lock();
        m_waiting.pop_front();
        ++m_counted;
        m_slow = m_slow && !m_waiting.empty();
        hold.unlock();
        m_progress.notify_all();
        hold.lock();
    }
}

void CountQueue::count(MessageSummary const& message, long now) {
    try {
        m_counts.messageEnded(message, now);
    } catch (std::exception const& failed) { // no memory
        m_notes.note(Logger::Severity::error, std::string("a message is not counted: ") + failed.what());
    }
}

} // namespace Vellum::Daemon
