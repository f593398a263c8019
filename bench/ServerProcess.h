// A server in a process of its own, for the life of this object.
#pragma once

#include "daemon/ListeningSocket.h"

#include <exception>
#include <functional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace Vellum::Bench {

// What an exception says to somebody who knows what was tried: the last parameter of ours, the text of others.
std::string reasonOf(std::exception const& caught);

// True when somebody accepts a connection there. The connection is closed at once.
bool accepts(Daemon::ListenAddress const& address);

class ServerProcess {
  public:
    // Tells that the server listens; to be called once, in the server's process.
    using Ready = std::function<void(std::vector<Daemon::ListenAddress> const&)>;

    // Forks; the child runs `body`, which serves until the process is ended, and ends. Waits until it is ready.
    // Throws Exception, with what `body` threw, when it ends before that. To be called while this process has one
    // thread.
    ServerProcess(std::string const& name, std::function<void(Ready const&)> const& body);
    // SIGTERM, and waits.
    ~ServerProcess();
    ServerProcess(ServerProcess const&) = delete;
    ServerProcess& operator=(ServerProcess const&) = delete;

    std::string const& name() const { return m_name; }
    pid_t process() const { return m_process; }
    Daemon::ListenAddress const& unixAddress() const;
    Daemon::ListenAddress const& tcpAddress() const;

  private:
    void awaitAddresses(int pipe);
    Daemon::ListenAddress const& addressWhere(bool isUnix) const;

    std::string m_name;
    pid_t m_process = -1;
    std::vector<Daemon::ListenAddress> m_addresses;
};

} // namespace Vellum::Bench
