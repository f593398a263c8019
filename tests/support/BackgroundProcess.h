// A program that runs beside a test, and dies with it.
#pragma once

#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace Vellum {

class BackgroundProcess {
  public:
    // Starts `command` (looked up in PATH) with nothing as its input; what it writes is appended to the file `output`.
    // It is killed when the thread that started it ends, however that ends.
    BackgroundProcess(std::vector<std::string> const& command, std::string const& output);
    // Kills it if it still runs; a fork of the test's process leaves it alone.
    ~BackgroundProcess();
    BackgroundProcess(BackgroundProcess const&) = delete;
    BackgroundProcess& operator=(BackgroundProcess const&) = delete;

    pid_t number() const { return m_process; }
    void signal(int number) const;
    // Whether it is still there.
    bool isRunning();
    // Waits for its end; answers its exit code, or minus the signal that ended it.
    int wait();
    void kill(); // SIGKILL, and waits

  private:
    pid_t m_process;
    pid_t const m_owner;
    std::optional<int> m_status; // once it has ended
};

} // namespace Vellum
