// A real database server for tests: private data directory, socket and port, gone when the tests are.
//
//   PrivateMariaDb& server = PrivateMariaDb::shared();   // started at first use, one for each test binary
//   server.removeDatabases();                            // a clean start for this test
//   Connection connection(Connection::defaultAddress(), "fe_sender_history");
//
// The server map points at it, with an account that may do everything in fe_sender_history and msisdn and nothing
// elsewhere, so a test notices when more is needed. It dies with the process that started it, however that ends.
#pragma once

#include "BackgroundProcess.h"
#include "foundation/database/ServerMap.h"

#include <memory>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <vector>

namespace Vellum {

class PrivateMariaDb {
  public:
    // Starts a server, waits until it answers, and installs account() in the server map. `options` go to mariadbd.
    explicit PrivateMariaDb(std::vector<std::string> options = {});
    ~PrivateMariaDb();
    PrivateMariaDb(PrivateMariaDb const&) = delete;
    PrivateMariaDb& operator=(PrivateMariaDb const&) = delete;

    static PrivateMariaDb& shared();

    Database::Server account() const; // over TCP, with a password
    Database::Server admin() const;   // over the socket; may do everything

    void useAccount() const; // installs account() in the server map

    // SIGKILL; the data directory stays as it is. start() starts a server on the same data, socket and port.
    void kill();
    void stop(); // an orderly shutdown
    void start();
    bool isRunning() const { return m_process != nullptr; }
    // Halts the server without closing anything, so that it takes connections and never answers; and lets it go on.
    void freeze();
    void thaw();

    // Drops every database that tests may have made.
    void removeDatabases();
    // Drops and creates fe_sender_history as the product would.
    void freshDatabase();

    // Runs statements as admin, each by itself; with `database` selected when it is not empty.
    void run(std::vector<std::string> const& statements, std::string const& database = "");
    // All values of a query, as admin: columns joined by '|', rows in order; NULL is "".
    std::vector<std::string> query(std::string const& statement, std::string const& database = "fe_sender_history");

    std::string const& directory() const { return m_directory; }
    unsigned int port() const { return m_port; }
    std::string socket() const { return m_directory + "/s"; }

  private:
    void launch();
    bool answers() const;
    void createAccount();
    std::string logTail() const;

    std::vector<std::string> const m_options;
    std::string m_directory;
    unsigned int m_port = 0;
    std::unique_ptr<BackgroundProcess> m_process; // none while it is stopped
    pid_t m_owner;                                // only this process ends the server, not a fork of it
};

// Makes a server the process's database for its life, and puts the one before back.
class InstalledServer {
  public:
    explicit InstalledServer(Database::Server const& server) : m_before(Database::ServerMap::instance().server()) {
        Database::ServerMap::instance().install(server);
    }
    ~InstalledServer() { Database::ServerMap::instance().install(m_before); }
    InstalledServer(InstalledServer const&) = delete;
    InstalledServer& operator=(InstalledServer const&) = delete;

  private:
    Database::Server m_before;
};

} // namespace Vellum
