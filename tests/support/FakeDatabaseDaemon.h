// A database daemon that only answers: for tests of those who ask it.
#pragma once

#include "tests/support/TemporaryDirectory.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace Vellum {

// Listens on a socket of its own, which is the process's database daemon for its life.
class FakeDatabaseDaemon {
  public:
    explicit FakeDatabaseDaemon(std::int32_t answer = 0);
    ~FakeDatabaseDaemon(); // the process has no daemon then
    FakeDatabaseDaemon(FakeDatabaseDaemon const&) = delete;
    FakeDatabaseDaemon& operator=(FakeDatabaseDaemon const&) = delete;

    // Called with each request's bytes before it is answered, on the daemon's thread. Set before anybody asks.
    std::function<void(std::string const& request)> onRequest;
    // What is answered from now on.
    std::atomic<std::int32_t> answer;

    // The bytes behind each answer from now on; none unless told.
    void answerWith(std::string behind);
    // These bytes instead of an answer and what is behind it, from now on.
    void sayOnly(std::string bytes);

    std::vector<std::string> requests() const; // their bytes, in the order of arrival
    void forgetRequests();

  private:
    void serve();
    void converse(int client);

    TemporaryDirectory m_directory;
    int m_listener;
    int m_wake[2]; // a pipe; its writing end is closed to end the thread
    mutable std::mutex m_lock;
    std::vector<std::string> m_requests; // under m_lock, as are the next
    std::string m_behind;
    std::optional<std::string> m_only;
    std::thread m_thread;
};

// The process has no daemon to ask, for its life.
class AbsentDatabaseDaemon {
  public:
    AbsentDatabaseDaemon();

  private:
    TemporaryDirectory m_directory; // where no socket is
};

} // namespace Vellum
