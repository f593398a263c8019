#include "daemon/Housekeeping.h"

#include "foundation/Logger.h"

#include <exception>
#include <string>
#include <utility>

namespace Vellum::Daemon {

Housekeeping::Housekeeping(std::function<void()> task, std::chrono::seconds interval)
    : m_task(std::move(task)), m_interval(interval), m_thread([this] { run(); }) {}

Housekeeping::~Housekeeping() {
    {
        std::lock_guard const hold(m_lock);
        m_stopping = true;
    }
    m_changed.notify_all();
    m_thread.join();
}

void Housekeeping::soon() {
    {
        std::lock_guard const hold(m_lock);
        m_soon = true;
    }
    m_changed.notify_all();
}

void Housekeeping::run() {
    std::unique_lock hold(m_lock);
    for (;;) {
        m_changed.wait_for(hold, m_interval, [this] { return m_stopping || m_soon; });
        if (m_stopping) {
            return;
        }
        m_soon = false;
        hold.unlock();
        try {
            m_task();
        } catch (std::exception const& failed) {
            Logger::instance(false).note(Logger::Severity::warning, std::string("housekeeping: ") + failed.what());
        }
        hold.lock();
    }
}

} // namespace Vellum::Daemon
