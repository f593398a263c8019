// explain, greylist release, rate reset: single messages and senders.
#pragma once

#include "tools/vellumctl/DaemonConnection.h"
#include "tools/vellumctl/Output.h"

#include <cstdint>
#include <optional>
#include <string>

namespace Vellum::Tools {

// What the command line says of a message.
struct MessageRequest {
    std::string address;                  // an IP address
    std::optional<std::string> sender;    // a mailbox, "<>" for a bounce
    std::optional<std::string> recipient; // a mailbox
    std::string name;                     // the client's verified name; "" for none
    std::string user;                     // who has logged in; "" for nobody
    bool json = false;
    std::int64_t now = 0; // what times are told from, seconds since the epoch

    // What is wrong with it; throws Failure (usage).
    void check() const;
};

// All throw Failure. With `json` the daemon's answer is written as it came (daemon/DecisionHandlers.h).

// Tells what the daemon would answer such a message now, and why.
void explain(DaemonConnection& daemon, MessageRequest const& request, Output& output);
// Lets the next message of this sender and recipient from this network through.
void release(DaemonConnection& daemon, MessageRequest const& request, Output& output);
// Lifts the block of the request's sender.
void resetRate(DaemonConnection& daemon, MessageRequest const& request, Output& output);

} // namespace Vellum::Tools
