#include "daemon/LoadKeeper.h"

#include "foundation/Exception.h"
#include "foundation/Logger.h"
#include "foundation/database/DatabaseDaemon.h"

#include <utility>

namespace Vellum::Daemon {

std::string LoadKeeper::problem() const {
    std::string const problem = m_tables.problem();
    Synchronized const hold(m_lock);
    return problem == m_acceptedProblem ? std::string() : problem;
}

bool LoadKeeper::mayBackUp() const {
    return problem().empty();
}

bool LoadKeeper::accept() {
    std::string const problem = m_tables.problem();
    Synchronized const hold(m_lock);
    return std::exchange(m_acceptedProblem, problem) != problem && !problem.empty();
}

void LoadKeeper::tryAgain() {
    if (mayBackUp()) {
        return;
    }
    if (DatabaseDaemon::askWhetherSettled() == DatabaseDaemon::Answer::notSettled) {
        return; // an accepted backup is not in the tables yet: what is there is older than what would be lost
    }
    m_tables.loadAgain();
    if (m_tables.problem().empty()) {
        Logger::instance(false).note(Logger::Severity::warning,
                                     m_tables.name + " that could not be loaded are loaded now: backups are on again");
        if (m_loaded) {
            m_loaded();
        }
    }
}

} // namespace Vellum::Daemon
