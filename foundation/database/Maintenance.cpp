#include "foundation/database/Maintenance.h"

#include "foundation/database/Query.h"

namespace Vellum::Database {

void maintain(Connection& connection, std::string const& text, char const* operation, char const* source,
              unsigned int line) {
    try {
        Query query(connection, nullptr, true);
        query << text;
        query.execute();
    } catch (Exception const& failed) {
        throw Exception(operation, Exception::failure, source, line).cause(failed);
    }
}

} // namespace Vellum::Database
