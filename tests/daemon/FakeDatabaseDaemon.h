// A database daemon that answers as a test says and keeps the scripts that it was given; it runs none.
#pragma once

#include "foundation/FileDescriptor.h"
#include "foundation/database/DatabaseDaemon.h"
#include "tests/support/TemporaryDirectory.h"

#include <atomic>
#include <fstream>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <vector>

namespace Vellum::Daemon {

class FakeDatabaseDaemon {
  public:
    FakeDatabaseDaemon()
        : m_before(DatabaseDaemon::socketPath()), m_listener(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        std::string const path = m_directory.path() + "/socket";
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        if (::bind(m_listener.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
            ::listen(m_listener.get(), 16) != 0) {
            throw std::runtime_error("no socket at " + path);
        }
        DatabaseDaemon::setSocketPath(path);
        m_thread = std::thread([this] { serve(); });
    }
    ~FakeDatabaseDaemon() {
        ::shutdown(m_listener.get(), SHUT_RDWR);
        m_thread.join();
        DatabaseDaemon::setSocketPath(m_before);
    }

    std::atomic<DatabaseDaemon::Answer> answer{DatabaseDaemon::Answer::accepted};

    std::vector<std::string> scripts() const {
        std::lock_guard<std::mutex> const hold(m_lock);
        return m_scripts;
    }

  private:
    void serve() {
        for (;;) {
            FileDescriptor const client(::accept4(m_listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
            if (!client) {
                return;
            }
            char request[DatabaseDaemon::headerSize + DatabaseDaemon::longestPath] = {};
            ::recv(client.get(), request, sizeof request - 1, 0); // short and written at once
            std::ostringstream script;
            script << std::ifstream(request + DatabaseDaemon::headerSize).rdbuf();
            {
                std::lock_guard<std::mutex> const hold(m_lock);
                m_scripts.push_back(script.str());
            }
            auto const word = static_cast<std::int32_t>(answer.load());
            ::send(client.get(), &word, sizeof word, MSG_NOSIGNAL);
        }
    }

    TemporaryDirectory m_directory;
    std::string const m_before;
    FileDescriptor m_listener;
    std::thread m_thread;
    mutable std::mutex m_lock;
    std::vector<std::string> m_scripts; // under m_lock
};

} // namespace Vellum::Daemon
