// What is known of a message when a decision is asked for.
#pragma once

#include "foundation/EmailAddress.h"
#include "foundation/HostName.h"
#include "foundation/IPAddress.h"

#include <string_view>

namespace Vellum::Daemon {

// A front fills in what it has been told so far; the rest stays empty. Views point into the front's own memory and are
// used only while it is asking.
struct Message {
    IPAddress client;             // the peer of the mail server; null when not known
    HostName clientName;          // its name, verified: the address has this name and the name this address
    std::string_view reverseName; // the name its address claims, which anyone can make up; only to be shown
    std::string_view helo;
    EmailAddress sender;                // null for a bounce
    EmailAddress recipient;             // null before there is one
    std::string_view authenticatedUser; // empty unless the client has logged in
    std::string_view queueId;           // of the mail server; it may not have one yet
    std::string_view instance;          // the same for all recipients of one message; empty when not known
};

// The client that an address stands for: an IPv6 socket that speaks IPv4 tells it as ::ffff:192.0.2.1, which is the
// client 192.0.2.1 of every other mail server.
IPAddress clientOf(IPAddress const& address);

} // namespace Vellum::Daemon
