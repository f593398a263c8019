// All rows of one query, as objects.
#pragma once

#include "foundation/database/Query.h"
#include "foundation/database/RowParser.h"

#include <string>

namespace Vellum::Database {

// Runs `sql` and appends a `Row` for each row of its result to `rows`. Throws DatabaseException when the query fails,
// and the Exception of a row that is refused, with the row's number and `source` (a table's name, or what else the rows
// come from) added: "row 17 of grey_list". The rows before it are in the container then.
template <class Row>
void fetchRows(Connection& connection, std::string const& sql, std::string const& source, RowContainer& rows) {
    FeRowParser<Row> parser(rows);
    Query query(connection, &parser, true);
    query << sql;
    try {
        query.execute();
    } catch (Exception const& failed) {
        auto const row = parser.failedRow();
        if (!row) {
            throw;
        }
        Exception named(failed);
        named.stringParameter("row " + std::to_string(*row + 1) + " of " + source);
        throw named;
    }
}

} // namespace Vellum::Database
