// A fresh database with sender reputation's tables, the process's cache and a configuration, for one test.
#pragma once

#include "reputation/BackupReport.h"
#include "reputation/LoadReport.h"
#include "reputation/ReputationDatabase.h"
#include "tests/support/DatabaseTables.h"
#include "tests/support/ReputationCache.h"
#include "tests/support/ReputationConfiguration.h"

#include <string>

namespace Vellum::Reputation {

class ReputationTables : public ReputationCache, protected DatabaseTables {
  protected:
    ReputationTables() {
        Database(DatabaseTables::address()).createTable();
        LoadReport::set({});
        BackupReport::set({});
        m_configuration.path = scriptPath();
        m_log.clear();
    }

    std::string scriptPath() const { return m_directory.path() + "/reputation.sql"; }
    static Rows recordRows() {
        return server().query("select * from sender_reputation order by ClientIPAddress, Period");
    }
    static Rows stateRows() { return server().query("select * from sender_reputation_state order by 1"); }
    static void read() { Database(DatabaseTables::address()).read(); }

    InstalledConfiguration m_configuration;
};

} // namespace Vellum::Reputation
