#include "greylist/TableRepair.h"

#include "foundation/database/TableRepair.h"
#include "greylist/GlRecordDatabase.h"

namespace Vellum::GreyList {
namespace {

void addMissingExpiry(Database::Connection& connection, std::vector<std::string>& changes) {
    if (Database::hasColumn(connection, greyListTable, "CreationTime") &&
        !Database::hasColumn(connection, greyListTable, "ExpiryTime")) {
        connection.run("ALTER TABLE " + greyListTable + " ADD ExpiryTime int not null", "repairTables");
        changes.push_back("table " + greyListTable + " had no column ExpiryTime: added, its tuples count as expired");
    }
}

} // namespace

std::vector<std::string> repairTables(Database::Connection& connection) {
    std::vector<std::string> changes;
    addMissingExpiry(connection, changes);
    Database::compareByteWise(connection, greyListTable, columnSize, changes);
    Database::compareByteWise(connection, autoExemptTable, columnSize, changes);
    return changes;
}

} // namespace Vellum::GreyList
