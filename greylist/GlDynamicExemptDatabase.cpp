#include "greylist/GlDynamicExemptDatabase.h"

#include "foundation/database/Maintenance.h"
#include "foundation/database/Query.h"
#include "foundation/database/QueryTableNames.h"
#include "greylist/GlRecordDatabase.h"
#include "greylist/GlRows.h"
#include "greylist/LogCodes.h"

#include <algorithm>

namespace Vellum::GreyList {
namespace {

// Lines are promised to log readers.
constexpr unsigned int createTableLine = 155;
constexpr unsigned int upgradeTableLine = 170;
constexpr unsigned int readLine = 199;

std::string tableName() {
    return Database::TableName(autoExemptTable, false).name();
}

} // namespace

std::string const DynamicExemptDatabase::dbname = databaseName;

DynamicExemptDatabase::DynamicExemptDatabase(SocketAddress const& address) : m_connection(dbname, "", "", address) {}

void DynamicExemptDatabase::initialize(SocketAddress const& address, bool recreate) {
    Database::Connection connection("", "", "", address);
    bool const exists = connection.dbSelectIfExists(dbname);
    if (exists && recreate) {
        connection.dbDelete(dbname);
    }
    if (!exists || recreate) {
        connection.dbCreate(dbname);
    }
}

void DynamicExemptDatabase::createTable() const {
    m_connection.enableMultipleStatementsPerQuery();
    std::string const name = tableName();
    std::string text = "DROP TABLE IF EXISTS " + name + ";\n" + "create table " + name + " (\n" +
                       " ClientIPAddressMask varchar( 128 ) not null,\n" + " Domain varchar( 128 ) not null,\n" +
                       " CreationTime int not null," + " ExpiryTime int not null," +
                       " Primary Key ( ClientIPAddressMask, Domain ))\n" + " engine=InnoDB;";
    text += '\0';
    Database::maintain(m_connection, text, "GreyList::DynamicExemptDatabase::createDynamicExemptRecordSetTable",
                       Source::dynamicExemptDatabase, createTableLine);
}

void DynamicExemptDatabase::upgradeTable() const {
    Database::maintain(
        m_connection, "ALTER table " + tableName() + " MODIFY ClientIPAddressMask varchar( 128 ) not null;",
        "GreyList::DynamicExemptDatabase::upgradeTable", Source::dynamicExemptDatabase, upgradeTableLine);
}

void DynamicExemptDatabase::read() const {
    try {
        Database::RowContainer container;
        Database::FeRowParser<DynamicExemptRecordRow> parser(container);
        Database::Query query(m_connection, &parser, true);
        query << "select * from autoexempt;";
        query.execute();
        std::for_each(container.rows().begin(), container.rows().end(), AdapterRowToDynamicExemptRecord());
    } catch (Exception const& failed) {
        throw Exception("DynamicExemptDatabase::read", Exception::failure, Source::dynamicExemptDatabase, readLine)
            .stringParameter("Error reading autoexempt")
            .cause(failed);
    }
}

} // namespace Vellum::GreyList
