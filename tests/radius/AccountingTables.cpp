#include "tests/radius/AccountingTables.h"

#include "foundation/database/Query.h"

#include <fstream>
#include <sstream>

namespace Vellum {

void AccountingTables::SetUp() {
    std::string const path = std::string(radiusDirectory) + "/mods-config/sql/main/mysql/schema.sql";
    std::ifstream file(path);
    if (!file) {
        GTEST_SKIP() << "cannot read " << path << ": the packages freeradius and freeradius-mysql are needed, and "
                     << "the right to read their files";
    }
    std::ostringstream schema;
    schema << file.rdbuf();
    m_server.removeDatabases();
    m_server.run({"create database msisdn"});
    Database::Connection connection(m_server.admin(), "msisdn");
    connection.enableMultipleStatementsPerQuery();
    Database::Query query(connection, nullptr, true);
    query << schema.str();
    query.execute();
    m_server.useAccount();
}

void AccountingTables::session(std::string const& number, std::string const& values) {
    static unsigned int serial = 0;
    m_server.run({"insert into radacct set acctuniqueid='" + std::to_string(++serial) + "', callingstationid='" +
                  number + "', acctstarttime = now() - interval 1 minute, acctupdatetime = acctstarttime"},
                 "msisdn");
    m_server.run({"update radacct set " + values + " where acctuniqueid='" + std::to_string(serial) + "'"}, "msisdn");
}

std::vector<std::string> AccountingTables::connections() {
    return m_server.query("select ID from information_schema.PROCESSLIST where DB = 'msisdn' and USER = 'vellum' "
                          "order by ID",
                          "");
}

} // namespace Vellum
