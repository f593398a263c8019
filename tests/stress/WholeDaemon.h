// A whole vellumd in the test's process, so that the thread sanitizer sees all of it: its main thread, fronts, port
// 29001, jobs, housekeeping and log, over a private MariaDB and a vellum-dbd of its own, with a subscriber directory.
#pragma once

#include "daemon/Daemon.h"
#include "tests/support/BackgroundProcess.h"
#include "tests/support/PrivateMariaDb.h"
#include "tests/support/TemporaryDirectory.h"

#include <atomic>
#include <memory>
#include <optional>
#include <string>
#include <thread>

namespace Vellum::Stress {

// One in a process: the milter library cannot be started twice.
class WholeDaemon {
  public:
    static constexpr unsigned int subscribers = 20;  // of the addresses 192.0.2.0 and up
    static constexpr unsigned int mostTuples = 9000; // a listing of them is more than waits for one client

    // Starts everything and waits until it serves.
    WholeDaemon();
    // Kills what still runs.
    ~WholeDaemon();
    WholeDaemon(WholeDaemon const&) = delete;
    WholeDaemon& operator=(WholeDaemon const&) = delete;

    std::string policySocket() const { return path("policy.sock"); }
    std::string milterSocket() const { return path("milter.sock"); }
    std::string scriptPath() const { return path("state/greylist.sql"); }
    unsigned int port() const { return m_port; }
    unsigned int metricsPort() const { return m_metricsPort; }
    std::string log() const;
    PrivateMariaDb& server() { return m_server; }

    // Writes settings that differ with each number, has them read by SIGHUP, and waits until they are.
    void reload(unsigned int variant);
    // Whether this unit is the active one of a pair, from the next look on.
    void setActive(bool active) const;

    // SIGTERM, to vellumd and then to vellum-dbd; their exit statuses.
    int end();
    int endDatabaseDaemon();
    std::string databaseDaemonOutput() const;

  private:
    std::string path(std::string const& name) const { return m_directory.path() + '/' + name; }
    void makeSubscribers();
    void startDatabaseDaemon();
    void writeSettings(unsigned int variant) const;
    bool awaitService();

    TemporaryDirectory m_directory;
    PrivateMariaDb m_server;
    std::unique_ptr<BackgroundProcess> m_databaseDaemon;
    std::unique_ptr<Daemon::Daemon> m_daemon;
    std::atomic<bool> m_hasEnded{false};
    int m_status = -1;
    std::string m_problem; // that ended it
    std::thread m_thread;  // the daemon's main thread
    unsigned int m_metricsPort = 0;
    unsigned int m_port = 0;
    unsigned int m_reloads = 0;
};

} // namespace Vellum::Stress
