#include "daemon/OngoingTrouble.h"

#include "foundation/Logger.h"

namespace Vellum::Daemon {

void OngoingTrouble::begins(std::string_view text, Clock::time_point now) {
    {
        Synchronized const holding(m_mutex);
        if (m_lasts) {
            return;
        }
        m_lasts = true;
        m_mentioned = !m_lastMention || now - *m_lastMention >= m_quiet;
        if (!m_mentioned) {
            return;
        }
        m_lastMention = now;
    }
    Logger::instance(true).note(Logger::Severity::warning, text);
}

void OngoingTrouble::ends(std::string_view text) {
    {
        Synchronized const holding(m_mutex);
        bool const mention = m_lasts && m_mentioned;
        m_lasts = false;
        if (!mention) {
            return;
        }
    }
    Logger::instance(true).note(Logger::Severity::info, text);
}

bool OngoingTrouble::lasts() const {
    Synchronized const holding(m_mutex);
    return m_lasts;
}

} // namespace Vellum::Daemon
