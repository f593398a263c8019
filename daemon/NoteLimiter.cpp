#include "daemon/NoteLimiter.h"

namespace Vellum::Daemon {

void NoteLimiter::note(Logger::Severity severity, std::string text, Clock::time_point now) {
    {
        Synchronized const holding(m_mutex);
        if (m_logged == 0 || now - m_begin >= m_interval) {
            m_begin = now;
            m_logged = 0;
        }
        if (m_logged == m_burst) {
            ++m_dropped;
            return;
        }
        ++m_logged;
        if (m_dropped > 0) {
            text += " (" + std::to_string(m_dropped) + " more like this were not logged)";
            m_dropped = 0;
        }
    }
    Logger::instance(true).note(severity, text);
}

void OngoingTrouble::begins(std::string_view text, Clock::time_point now) {
    {
        Synchronized const holding(m_mutex);
        if (m_lasting) {
            return;
        }
        m_lasting = true;
        m_mentioned = !m_everMentioned || now - m_lastMention >= m_quiet;
        if (!m_mentioned) {
            return;
        }
        m_everMentioned = true;
        m_lastMention = now;
    }
    Logger::instance(true).note(Logger::Severity::warning, text);
}

void OngoingTrouble::ends(std::string_view text) {
    {
        Synchronized const holding(m_mutex);
        bool const mention = m_lasting && m_mentioned;
        m_lasting = false;
        if (!mention) {
            return;
        }
    }
    Logger::instance(true).note(Logger::Severity::info, text);
}

} // namespace Vellum::Daemon
