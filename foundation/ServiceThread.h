// Threads of a service.
#pragma once

#include <csignal>
#include <functional>
#include <string>
#include <thread>

namespace Vellum {

// As long as it lives, no signal is delivered to the thread that has made it, nor ever to a thread made meanwhile,
// which inherits that: for libraries that start threads of their own.
class SignalsBlocked {
  public:
    SignalsBlocked();
    ~SignalsBlocked();
    SignalsBlocked(SignalsBlocked const&) = delete;
    SignalsBlocked& operator=(SignalsBlocked const&) = delete;

  private:
    sigset_t m_before{};
};

// Starts a thread under that name (at most 15 characters, as tools show it) to which no signal is delivered: signals
// are the main thread's business, and a system call of a service is never interrupted. Throws std::system_error.
std::thread startServiceThread(std::string const& name, std::function<void()> body);

} // namespace Vellum
