#include "foundation/database/QueryTableNames.h"

#include "foundation/database/Query.h"

namespace Vellum::Database {

namespace {

class NameParser : public RowParser {
  public:
    explicit NameParser(std::set<std::string>& names) : m_names(names) {}
    void parse(void* handle, void* result) override {
        long const count = db_result_row_num(handle, result);
        for (long index = 0; index < count; ++index) {
            void* const row = db_result_fetch_row(result, index);
            m_names.insert(db_result_get_value(handle, result, row, 0));
        }
    }

  private:
    std::set<std::string>& m_names;
};

} // namespace

QueryTableNames::QueryTableNames(Connection& connection) {
    NameParser parser(m_names);
    Query query(connection, &parser, true);
    query << "SHOW TABLES";
    query.execute();
}

TableName::TableName(std::string const& name, bool quoted) : m_name(quoted ? quotedIdentifier(name) : name) {}

} // namespace Vellum::Database
