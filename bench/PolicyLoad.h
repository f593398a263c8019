// Load as mail servers put it on a policy server: many connections, one request in flight on each.
#pragma once

#include "daemon/ListeningSocket.h"

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace Vellum::Bench {

// Which tuples the requests are about.
enum class Keys {
    known,  // any of the tuples that the server has, each as likely
    skewed, // of those, the n-th as likely as 1/n: a few senders write most of the mail
    fresh,  // never seen before
};
Keys keysNamed(std::string const& name); // throws Exception
char const* keysName(Keys keys);

// The envelope with that number: a pure function, so that a server can be filled with the same ones beforehand.
struct Envelope {
    std::uint32_t address; // of the client, host order
    std::string sender;
    std::string recipient;
};
Envelope envelopeOf(std::uint64_t number);

// Appends a request about that envelope, every attribute of Postfix 3.8 in its order, about 700 bytes. `message`
// makes the instance unique.
void appendRequest(std::string& out, std::uint64_t number, std::uint64_t message);

// How a server is asked.
enum class Protocol {
    policy,    // Postfix' policy protocol, many requests over one connection
    greylistd, // greylistd's own: "--grey ADDRESS SENDER RECIPIENT", answered by "true" or "false", then the end
};

struct Load {
    Daemon::ListenAddress server;
    Protocol protocol = Protocol::policy;
    unsigned int connections = 1;
    Keys keys = Keys::known;
    std::uint64_t tuples = 1000000;     // that the server knows
    std::uint64_t firstFresh = 1000000; // the number of the first fresh one
    std::chrono::milliseconds warmUp{200};
    std::chrono::milliseconds duration{2000};
};

struct LoadResult {
    double seconds = 0;
    std::uint64_t requests = 0;
    std::uint64_t fresh = 0; // numbers used up, those of the warm-up included
    double p50 = 0;          // microseconds
    double p99 = 0;
    double p999 = 0;
    double serverCpu = 0; // microseconds for each request
    // How the answers began.
    std::uint64_t dunno = 0;
    std::uint64_t defer = 0;
    std::uint64_t prepend = 0;
    std::uint64_t other = 0;
};

// Puts the load on the server from a process of its own; `serverProcess` is the one whose CPU time is counted, with all
// its threads and all processes below it. Throws Exception when the server cannot be reached or closes a connection.
LoadResult run(Load const& load, pid_t serverProcess);

} // namespace Vellum::Bench
