// The database "msisdn" as a FreeRADIUS server keeps it, for one test.
#pragma once

#include "tests/support/CapturingLogger.h"
#include "tests/support/PrivateMariaDb.h"

#include <gtest/gtest.h>

#include <string>

namespace Vellum {

// The tables are those of the schema that FreeRADIUS ships. Tests are skipped where it is not installed, or its files
// may not be read.
class AccountingTables : public testing::Test {
  protected:
    void SetUp() override;

    // A session as it stands in radacct: `values` are columns and values, as "framedipaddress='192.0.2.1'". Without
    // more it is open, began a minute ago, and has been heard of then.
    void session(std::string const& number, std::string const& values);
    // Connections of the account that the product uses, to this database.
    std::vector<std::string> connections();

    CapturingLogger m_log;
    PrivateMariaDb& m_server = PrivateMariaDb::shared();
};

inline constexpr char const* radiusDirectory = "/etc/freeradius/3.0";
inline constexpr char const* radiusProgram = "/usr/sbin/freeradius";

} // namespace Vellum
