// A fresh database with the greylist's tables, and the process's caches, for one test.
#pragma once

#include "greylist/GlDynamicExemptDatabase.h"
#include "greylist/GlRecordDatabase.h"
#include "greylist/LoadReport.h"
#include "tests/support/PrivateMariaDb.h"
#include "tests/support/ProcessCaches.h"
#include "tests/support/TemporaryDirectory.h"

#include <fstream>
#include <functional>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

namespace Vellum::GreyList {

class GreylistTables : public ProcessCaches {
  public:
    using Rows = std::vector<std::string>; // columns joined by '|'

  protected:
    GreylistTables() {
        server().freshDatabase();
        GlRecordDatabase(address()).createTable();
        DynamicExemptDatabase(address()).createTable();
        LoadReport::setTuples({});
        LoadReport::setExemptions({});
        m_configuration->path = scriptPath();
        m_log.clear();
    }

    static PrivateMariaDb& server() { return PrivateMariaDb::shared(); }
    static SocketAddress address() { return Database::Connection::defaultAddress(); }
    std::string scriptPath() const { return m_directory.path() + "/greylist.sql"; }

    // As an administrator, in the database.
    static void run(std::vector<std::string> const& statements) { server().run(statements, databaseName); }
    static Rows tupleRows() { return server().query("select * from grey_list order by 1, 2, 3"); }
    static Rows exemptionRows() { return server().query("select * from autoexempt order by 1, 2"); }

    static void read() { GlRecordDatabase(address()).read(); }

    // Everything in a cache, in key order: "network sender recipient firstSeen expiry initialLifetime".
    Rows tuplesHeld() const {
        Rows all;
        SharedLock const hold(m_tuples.lock);
        m_tuples.forEachInKeyOrder([&](auto const& pair) {
            all.push_back(pair.first->mask().asString() + ' ' + pair.first->sender().asString() + ' ' +
                          pair.first->recipient().asString() + times(pair.second));
            return true;
        });
        return all;
    }
    Rows exemptionsHeld() const {
        Rows all;
        SharedLock const hold(m_exemptions.lock);
        m_exemptions.forEachInKeyOrder([&](auto const& pair) {
            all.push_back(pair.first->mask().asString() + ' ' + pair.first->domain() + times(pair.second));
            return true;
        });
        return all;
    }

    // The statements that the product's account sends while `work` runs, as they arrive at the server.
    static Rows sent(std::function<void()> const& work) {
        server().run({"SET GLOBAL log_output='TABLE'", "TRUNCATE mysql.general_log", "SET GLOBAL general_log=1"});
        work();
        server().run({"SET GLOBAL general_log=0"});
        return server().query("SELECT argument FROM mysql.general_log WHERE command_type='Query' AND "
                              "user_host LIKE 'vellum[%'",
                              "mysql");
    }

    static std::string contentOf(std::string const& path) {
        std::ifstream file(path, std::ios::binary);
        std::ostringstream content;
        content << file.rdbuf();
        return content.str();
    }
    static void writeFile(std::string const& path, std::string const& content) {
        std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
    }

    TemporaryDirectory m_directory;

  private:
    static std::string times(Status const& status) {
        return ' ' + std::to_string(status.firstSeen) + ' ' + std::to_string(status.expiry) + ' ' +
               std::to_string(status.initialLifetime);
    }
};

// What `work` is refused with, or nothing.
template <class Work>
std::optional<Exception> refusalOf(Work work) {
    try {
        work();
    } catch (Exception const& refused) {
        return refused;
    }
    return std::nullopt;
}

} // namespace Vellum::GreyList
