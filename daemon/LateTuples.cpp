#include "daemon/LateTuples.h"

#include "foundation/Logger.h"
#include "foundation/ServiceThread.h"

#include <exception>
#include <string>

namespace Vellum::Daemon {

LateTuples::LateTuples(GreyList::_TupleCache& tuples, std::size_t mostHeld)
    : m_tuples(tuples), m_most(mostHeld), m_thread(startServiceThread("late-tuples", [this] { work(); })) {}

LateTuples::~LateTuples() {
    {
        std::lock_guard<std::mutex> const hold(m_mutex);
        m_ending = true;
        m_changed.notify_all();
    }
    m_thread.join();
}

void LateTuples::add(GreyList::TupleParts const& tuple, long now) {
    GreyList::TupleId const id(tuple);
    std::lock_guard<std::mutex> const hold(m_mutex);
    if (m_waiting.size() >= m_most) {
        return;
    }
    m_waiting.try_emplace(id, now);
    m_changed.notify_all();
}

// A tuple stays in the map until the cache has it, so that its next attempt does not come between.
void LateTuples::work() {
    std::unique_lock<std::mutex> hold(m_mutex);
    for (;;) {
        m_changed.wait(hold, [this] { return m_ending || !m_waiting.empty(); });
        if (m_waiting.empty()) {
            return;
        }
        auto const [id, now] = *m_waiting.begin();
        hold.unlock();
        try {
            m_tuples.admit(id, now);
        } catch (std::exception const& failed) { // no memory: it begins with its next attempt
            Logger::instance(false).note(Logger::Severity::error,
                                         std::string("a tuple could not be kept: ") + failed.what());
        }
        hold.lock();
        m_waiting.erase(id);
        m_changed.notify_all();
    }
}

void LateTuples::waitUntilDone() {
    std::unique_lock<std::mutex> hold(m_mutex);
    m_changed.wait(hold, [this] { return m_waiting.empty(); });
}

} // namespace Vellum::Daemon
