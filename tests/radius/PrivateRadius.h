// A FreeRADIUS server of the test's own that keeps its accounting in the test's database.
//
//   PrivateRadius radius(PrivateMariaDb::shared());     // the tables are there already: AccountingTables.h
//   radius.send({"Acct-Status-Type = Start", "User-Name = ann", ...});
//
// Its configuration, files and port are its own; of the installed one it uses the queries for MariaDB as they are
// shipped. It runs as the test's user, listens on the loopback, and dies with the test.
#pragma once

#include "tests/support/BackgroundProcess.h"
#include "tests/support/PrivateMariaDb.h"
#include "tests/support/TemporaryDirectory.h"

#include <memory>
#include <string>
#include <vector>

namespace Vellum {

class PrivateRadius {
  public:
    // Starts it and waits until it serves. Throws std::runtime_error with the end of its log when it does not.
    explicit PrivateRadius(PrivateMariaDb& database);

    // Sends an accounting request with radclient, and waits for the server's answer: the tables hold it then. Throws
    // std::runtime_error when there is none.
    void send(std::vector<std::string> const& attributes) const;

  private:
    void writeConfiguration(PrivateMariaDb const& database) const;
    void awaitService();
    std::string logTail() const;

    TemporaryDirectory m_directory;
    unsigned int m_port;
    std::unique_ptr<BackgroundProcess> m_process;
};

} // namespace Vellum
