// Where the dispatcher of a registry number really listens, for the clients of this process.
//
// Code names dispatchers by their number (29001). Unless something else was mapped, that is TCP port 29001 of
// 127.0.0.1; a tool maps what its settings say, a test what the kernel chose.
#pragma once

#include <string>

namespace Vellum::IPC {

class Endpoint {
  public:
    std::string host; // a numeric IPv4 or IPv6 address
    unsigned int port;

    // From now on, the number's dispatcher is there. Thread-safe, like the others.
    static void map(int registryNumber, std::string const& host, unsigned int port);
    static void unmap(int registryNumber);
    static Endpoint of(int registryNumber);

    std::string asString() const; // "127.0.0.1:29001", "[::1]:29001"
};

} // namespace Vellum::IPC
