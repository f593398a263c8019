#include "foundation/NoteLimiter.h"

namespace Vellum {

void NoteLimiter::note(Logger::Severity severity, std::string text, Clock::time_point now) {
    {
        Synchronized const holding(m_lock);
        if (m_logged == 0 || now - m_begin >= m_interval) {
            m_begin = now;
            m_logged = 0;
        }
        if (m_logged >= m_burst) {
            ++m_dropped;
            return;
        }
        ++m_logged;
        if (m_dropped > 0) {
            text += " (" + std::to_string(m_dropped) + " more like this were not logged)";
            m_dropped = 0;
        }
    }
    Logger::instance(false).note(severity, text);
}

} // namespace Vellum
