// What tests of a family's tables share: a fresh database on the private server, looks into it, and files.
#pragma once

#include "foundation/Exception.h"
#include "foundation/database/Connection.h"
#include "tests/support/PrivateMariaDb.h"
#include "tests/support/TemporaryDirectory.h"

#include <fstream>
#include <functional>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

namespace Vellum {

// To be a base of a fixture.
class DatabaseTables {
  public:
    using Rows = std::vector<std::string>; // columns joined by '|'
    static constexpr char const* databaseName = "fe_sender_history";

  protected:
    DatabaseTables() { server().freshDatabase(); }

    static PrivateMariaDb& server() { return PrivateMariaDb::shared(); }
    static SocketAddress address() { return Database::Connection::defaultAddress(); }

    // As an administrator, in the database.
    static void run(std::vector<std::string> const& statements) { server().run(statements, databaseName); }

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

} // namespace Vellum
