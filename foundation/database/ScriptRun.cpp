#include "foundation/database/ScriptRun.h"

#include "foundation/database/ScriptStatement.h"

#include <string>

namespace Vellum::Database {

namespace {

[[noreturn]] void refuse(char const* reason) {
    throw DatabaseException(scriptOperation, 0, reason);
}

[[noreturn]] void refuse(std::string_view statement, char const* reason) {
    throw DatabaseException(scriptOperation, 0, std::string(reason) + "; statement: " + shortenedStatement(statement));
}

} // namespace

void ScriptRun::take(std::string_view statement) {
    ScriptStatement const meaning = scriptStatement(statement);
    if (m_unlocked && meaning != ScriptStatement::unlockTables && meaning != ScriptStatement::commit) {
        refuse(statement, "stands after UNLOCK TABLES, which ends a script");
    }
    m_empty = false;
    switch (meaning) {
    case ScriptStatement::change:
        m_changed = true;
        m_closed = false;
        m_affectedRows += m_session.run(statement);
        break;
    case ScriptStatement::look:
        m_session.run(statement);
        break;
    case ScriptStatement::lockTables:
        refuseAfterChange(statement);
        m_session.run(statement);
        m_locked = true;
        break;
    case ScriptStatement::create:
        refuseAfterChange(statement);
        m_session.run(statement);
        break;
    case ScriptStatement::begin:
        refuseAfterChange(statement);
        break;
    case ScriptStatement::commit:
        m_closed = true;
        break;
    case ScriptStatement::unlockTables:
        m_closed = true;
        m_unlocked = true;
        break;
    case ScriptStatement::unfit:
        refuse(statement, "is not allowed in a script: it could not be taken back or would end the transaction");
    }
}

void ScriptRun::finish() {
    if (m_empty) {
        refuse("holds no statement");
    }
    if (m_locked && !m_unlocked) {
        refuse("is cut off: it locks tables and does not end with UNLOCK TABLES");
    }
    if (!m_closed) {
        refuse("is cut off: it does not end with COMMIT");
    }
    m_session.commit();
}

void ScriptRun::refuseAfterChange(std::string_view statement) const {
    if (m_changed) {
        refuse(statement, "stands after a change, which it would commit before the script's end");
    }
}

} // namespace Vellum::Database
