#include "foundation/database/ScriptTransaction.h"

#include <mysql.h>

namespace Vellum::Database {

ScriptTransaction::ScriptTransaction(Connection& connection) : m_connection(connection) {
    connection.run("SET autocommit=0", scriptOperation);
}

ScriptTransaction::~ScriptTransaction() {
    abandon();
    leave();
}

std::uint64_t ScriptTransaction::run(std::string_view statement) {
    return m_connection.run(statement, scriptOperation);
}

void ScriptTransaction::commit() {
    m_state = State::committing;
    m_connection.run("COMMIT", scriptOperation);
    m_state = State::ended;
}

std::string ScriptTransaction::abandon() noexcept {
    State const before = m_state;
    m_state = State::ended;
    if (before == State::ended) {
        return "";
    }
    try {
        m_connection.run("ROLLBACK", scriptOperation);
        return mysql_warning_count(m_connection.native()) == 0
                   ? "rolled back"
                   : "rolled back, but a table without transactions keeps its changes";
    } catch (...) {
        m_connection.interrupt(); // the server rolls back what a vanished session leaves
        return before == State::open ? "rolled back" : "connection lost in the final COMMIT, all is done or nothing";
    }
}

// UNLOCK TABLES and SET autocommit=1 would both commit, so they come when the transaction has ended.
void ScriptTransaction::leave() noexcept {
    try {
        m_connection.run("UNLOCK TABLES", scriptOperation);
        m_connection.run("SET autocommit=1", scriptOperation);
    } catch (...) {
        m_connection.interrupt();
    }
}

} // namespace Vellum::Database
