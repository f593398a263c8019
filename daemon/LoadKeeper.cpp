#include "daemon/LoadKeeper.h"

#include "foundation/Exception.h"
#include "foundation/Logger.h"
#include "foundation/database/DatabaseDaemon.h"

#include <utility>

namespace Vellum::Daemon {
namespace {

constexpr char const* writtenElsewhere =
    "this unit has become the active one, and has not loaded yet what the other one has written";

} // namespace

std::string LoadKeeper::problem() const {
    std::string const problem = m_tables.problem();
    Synchronized const hold(m_lock);
    return problem == m_acceptedProblem ? std::string() : problem;
}

std::string LoadKeeper::whyNoBackup() const {
    if (m_loadedFor != activations()) {
        return writtenElsewhere;
    }
    return m_tables.whyNoBackup ? m_tables.whyNoBackup() : problem();
}

bool LoadKeeper::mayBackUp() const {
    return whyNoBackup().empty();
}

bool LoadKeeper::accept() {
    bool const wasShut = !mayBackUp();
    m_loadedFor = activations();
    if (m_tables.accept) {
        m_tables.accept();
    } else {
        std::string const problem = m_tables.problem();
        Synchronized const hold(m_lock);
        m_acceptedProblem = problem;
    }
    return wasShut;
}

void LoadKeeper::tryAgain() {
    std::uint64_t const activation = activations();
    bool const outdated = m_loadedFor != activation;
    if ((!outdated && problem().empty()) ||
        // An accepted backup is not in the tables yet: what is there is older than what would be lost.
        DatabaseDaemon::askWhetherSettled() == DatabaseDaemon::Answer::notSettled) {
        return;
    }
    {
        RepeatedFailures::Round const round(m_failures, m_tables.problem());
        if (outdated) {
            m_tables.loadAnew();
            m_loadedFor = activation; // whatever came of it: what is missing now is a problem like that of any load
        } else {
            m_tables.loadAgain();
        }
    }
    sayWhatCame(outdated);
}

void LoadKeeper::sayWhatCame(bool anew) {
    std::string const problem = m_tables.problem();
    if (problem.empty()) {
        Logger::instance(false).note(
            Logger::Severity::warning,
            anew ? m_tables.name + " that the other unit has written are loaded: backups are on again"
                 : m_tables.name + " that could not be loaded are loaded now: backups are on again");
        if (m_loaded) {
            m_loaded();
        }
    } else if (anew) {
        Logger::instance(false).note(Logger::Severity::error, "of what the other unit has written, " + problem);
    }
}

std::uint64_t LoadKeeper::activations() const {
    return m_activations ? m_activations() : 0;
}

} // namespace Vellum::Daemon
