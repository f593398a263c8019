#include "daemon/DatabaseWatch.h"

#include "foundation/Exception.h"
#include "foundation/Logger.h"
#include "foundation/database/Connection.h"
#include "greylist/GlRecordDatabase.h"

namespace Vellum::Daemon {

void DatabaseWatch::look(long now) {
    std::string problem;
    try {
        Database::Connection const connection(Database::Connection::defaultAddress(), GreyList::databaseName);
    } catch (Exception const& failed) {
        problem = failed.asString();
    }
    bool const reachable = problem.empty();
    bool changed = false;
    {
        Synchronized const hold(m_lock);
        changed = m_state.reachable.value_or(true) != reachable;
        m_state = {reachable, now, problem};
    }
    if (changed) {
        Logger& log = Logger::instance(false);
        if (reachable) {
            log.note(Logger::Severity::warning, "the database answers again");
        } else {
            log.note(Logger::Severity::error, "the database does not answer; decisions go on from memory: " + problem);
        }
    }
}

DaemonStatus::DatabaseState DatabaseWatch::state() const {
    Synchronized const hold(m_lock);
    return m_state;
}

} // namespace Vellum::Daemon
