// Names of tables.
#pragma once

#include "foundation/database/Connection.h"

#include <set>
#include <string>

namespace Vellum::Database {

// The tables of the connection's database when this was constructed.
class QueryTableNames {
  public:
    // Throws DatabaseException, also when no database is selected.
    explicit QueryTableNames(Connection& connection);

    // As the server spells them; membership is byte by byte, letter case counts.
    std::set<std::string> const& names() const { return m_names; }

  private:
    std::set<std::string> m_names;
};

// A table's name as it is written into SQL.
class TableName {
  public:
    // `quoted`: in backticks, for a name that is not a plain word.
    TableName(std::string const& name, bool quoted);

    std::string const& name() const { return m_name; }

  private:
    std::string m_name;
};

} // namespace Vellum::Database
