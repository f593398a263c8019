#include "foundation/database/TableRepair.h"

#include "foundation/database/Columns.h"
#include "foundation/database/FetchRows.h"

#include <utility>

namespace Vellum::Database {
namespace {

// One row of one text column.
class TextRow : public RowImpl {
  public:
    bool parse(void* handle, void* result, void* row) override {
        text = Columns{handle, result, row}.text(0);
        return true;
    }
    std::string text;
};

std::vector<std::string> columnsWhere(Connection& connection, std::string const& table, std::string const& condition) {
    RowContainer rows;
    fetchRows<TextRow>(
        connection,
        "SELECT COLUMN_NAME FROM information_schema.COLUMNS WHERE TABLE_SCHEMA = database() AND TABLE_NAME = '" +
            table + "' AND " + condition + " ORDER BY ORDINAL_POSITION",
        "information_schema.COLUMNS", rows);
    std::vector<std::string> all;
    for (auto const& row : rows.rows()) {
        all.push_back(static_cast<TextRow const&>(*row).text);
    }
    return all;
}

// Texts that the server compares in another way than byte by byte. Columns of binary types have no collation.
std::string const foldedTexts = "COLLATION_NAME <> '" + std::string(byteWiseCollation) + "'";

} // namespace

bool hasColumn(Connection& connection, std::string const& table, std::string const& column) {
    return !columnsWhere(connection, table, "COLUMN_NAME = '" + column + "'").empty();
}

// Two steps, over a binary type: the bytes stay as they are, whatever character set they were declared to be in.
void compareByteWise(Connection& connection, std::string const& table, unsigned int textBytes,
                     std::vector<std::string>& changes) {
    std::vector<std::string> const folded = columnsWhere(connection, table, foldedTexts);
    if (folded.empty()) {
        return;
    }
    std::string const size = '(' + std::to_string(textBytes) + ')';
    std::string toBytes = "ALTER TABLE " + table;
    std::string toTexts = toBytes + " DEFAULT " + byteWiseCharacterSet;
    char const* separator = " ";
    for (std::string const& column : folded) {
        std::string const name = quotedIdentifier(column);
        toBytes.append(std::exchange(separator, ", ")).append("MODIFY ").append(name);
        toBytes.append(" varbinary").append(size).append(" not null");
        toTexts.append(", MODIFY ").append(name).append(" varchar").append(size);
        toTexts.append(" ").append(byteWiseCharacterSet).append(" not null");
    }
    connection.run(toBytes, "repairTables");
    connection.run(toTexts, "repairTables");
    changes.push_back("table " + table +
                      " took texts that differ in letter case or trailing blanks for equal: now "
                      "compared byte by byte");
}

} // namespace Vellum::Database
