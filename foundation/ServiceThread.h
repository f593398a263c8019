// Threads of a service.
#pragma once

#include <functional>
#include <string>
#include <thread>

namespace Vellum {

// Starts a thread under that name (at most 15 characters, as tools show it) to which no signal is delivered: signals
// are the main thread's business, and a system call of a service is never interrupted. Throws std::system_error.
std::thread startServiceThread(std::string const& name, std::function<void()> body);

} // namespace Vellum
