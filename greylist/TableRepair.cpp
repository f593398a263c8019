#include "greylist/TableRepair.h"

#include "foundation/database/Query.h"
#include "greylist/GlRecordDatabase.h"

#include <utility>

namespace Vellum::GreyList {
namespace {

// One row of one text column.
class TextRow : public Database::RowImpl {
  public:
    bool parse(void* handle, void* result, void* row) override {
        text = db_result_get_value(handle, result, row, 0);
        return true;
    }
    std::string text;
};

std::vector<std::string> texts(Database::Connection& connection, std::string const& sql) {
    Database::RowContainer rows;
    Database::FeRowParser<TextRow> parser(rows);
    Database::Query query(connection, &parser, true);
    query << sql;
    query.execute();
    std::vector<std::string> all;
    for (auto const& row : rows.rows()) {
        all.push_back(static_cast<TextRow const&>(*row).text);
    }
    return all;
}

std::string columnsWhere(std::string const& table, std::string const& condition) {
    return "SELECT COLUMN_NAME FROM information_schema.COLUMNS WHERE TABLE_SCHEMA = database() AND TABLE_NAME = '" +
           table + "' AND " + condition + " ORDER BY ORDINAL_POSITION";
}

// Texts that the server compares in another way than byte by byte. Columns of binary types have no collation.
std::string const foldedTexts = "COLLATION_NAME <> '" + std::string(Database::byteWiseCollation) + "'";

void addMissingExpiry(Database::Connection& connection, std::vector<std::string>& changes) {
    bool const exists = !texts(connection, columnsWhere(greyListTable, "COLUMN_NAME = 'CreationTime'")).empty();
    bool const complete = !texts(connection, columnsWhere(greyListTable, "COLUMN_NAME = 'ExpiryTime'")).empty();
    if (exists && !complete) {
        connection.run("ALTER TABLE " + greyListTable + " ADD ExpiryTime int not null", "repairTables");
        changes.push_back("table " + greyListTable + " had no column ExpiryTime: added, its tuples count as expired");
    }
}

// Two steps, over a binary type: the bytes stay as they are, whatever character set they were declared to be in.
void compareByteWise(Database::Connection& connection, std::string const& table, std::vector<std::string>& changes) {
    std::vector<std::string> const folded = texts(connection, columnsWhere(table, foldedTexts));
    if (folded.empty()) {
        return;
    }
    std::string toBytes = "ALTER TABLE " + table;
    std::string toTexts = toBytes + " DEFAULT " + Database::byteWiseCharacterSet;
    char const* separator = " ";
    for (std::string const& column : folded) {
        std::string const name = Database::quotedIdentifier(column);
        toBytes += std::exchange(separator, ", ") + ("MODIFY " + name + " varbinary(128) not null");
        toTexts += ", MODIFY " + name + " varchar(128) " + Database::byteWiseCharacterSet + " not null";
    }
    connection.run(toBytes, "repairTables");
    connection.run(toTexts, "repairTables");
    changes.push_back("table " + table +
                      " took texts that differ in letter case or trailing blanks for equal: now "
                      "compared byte by byte");
}

} // namespace

std::vector<std::string> repairTables(Database::Connection& connection) {
    std::vector<std::string> changes;
    addMissingExpiry(connection, changes);
    compareByteWise(connection, greyListTable, changes);
    compareByteWise(connection, autoExemptTable, changes);
    return changes;
}

} // namespace Vellum::GreyList
