#include "foundation/database/Query.h"

#include "foundation/database/ServerResult.h"
#include "foundation/database/StatementSplitter.h"

#include <string>
#include <vector>

namespace Vellum::Database {

namespace {

std::vector<std::string> statementsOf(std::string_view text) {
    std::vector<std::string> statements;
    StatementSplitter splitter([&](Statement const& statement) { statements.emplace_back(statement.text); });
    splitter.feed(text);
    splitter.finish();
    return statements;
}

// Takes what is left of a statement's answer off the connection, so that the next statement finds it ready, also when
// a parser has thrown.
class RestOfAnswer {
  public:
    explicit RestOfAnswer(MYSQL* mysql) : m_mysql(mysql) {}
    ~RestOfAnswer() {
        while (mysql_more_results(m_mysql) != 0 && mysql_next_result(m_mysql) == 0) {
            mysql_free_result(mysql_use_result(m_mysql));
        }
    }
    RestOfAnswer(RestOfAnswer const&) = delete;
    RestOfAnswer& operator=(RestOfAnswer const&) = delete;

  private:
    MYSQL* m_mysql;
};

} // namespace

Query::Query(Connection& connection, RowParser* parser, bool) : m_connection(connection), m_parser(parser) {
    exceptions(std::ios::badbit); // what finds no memory must not become a shorter statement
}

void Query::execute() {
    m_affectedRows = 0;
    std::vector<std::string> const statements = statementsOf(view());
    if (statements.empty()) {
        throw DatabaseException("Query::execute", 0, "no statement in the text: " + shortenedStatement(view()));
    }
    if (statements.size() > 1 && !m_connection.multipleStatementsPerQuery()) {
        throw DatabaseException("Query::execute", 0,
                                std::to_string(statements.size()) +
                                    " statements in a query, expected one: " + shortenedStatement(view()));
    }
    for (std::string const& statement : statements) {
        run(statement);
    }
}

void Query::run(std::string const& statement) {
    MYSQL* const mysql = m_connection.native();
    if (mysql_real_query(mysql, statement.data(), statement.size()) != 0) {
        throw m_connection.error("Query::execute", statement);
    }
    RestOfAnswer const rest(mysql);
    int next = 0;
    do { // a CALL answers with several results
        MYSQL_RES* const stored = mysql_store_result(mysql);
        // Rows were announced and are not there: the library does not always give the error a number, as when it finds
        // no memory. An empty table looks otherwise, and must not be mistaken for that.
        if (stored == nullptr && (mysql_errno(mysql) != 0 || mysql_field_count(mysql) != 0)) {
            throw m_connection.error("Query::execute", statement);
        }
        ServerResult result(stored);
        if (stored == nullptr) {
            m_affectedRows += mysql_affected_rows(mysql);
        }
        if (m_parser != nullptr) {
            m_parser->parse(mysql, stored == nullptr ? nullptr : static_cast<StoredResult*>(&result));
        }
        next = mysql_next_result(mysql);
    } while (next == 0);
    if (next > 0) {
        throw m_connection.error("Query::execute", statement);
    }
}

} // namespace Vellum::Database
