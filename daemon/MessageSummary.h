// What became of one message, as the families count it.
#pragma once

#include "foundation/EmailAddress.h"
#include "foundation/IPAddress.h"

#include <cstdint>
#include <string>

namespace Vellum::Daemon {

// One mail transaction: from MAIL to the end of the message, or to whatever ended it before.
struct MessageSummary {
    IPAddress client;              // null when not known: mail of this machine's own users
    EmailAddress sender;           // null for a bounce
    std::string authenticatedUser; // empty unless the client has logged in
    std::uint32_t recipients = 0;  // named, accepted or invalid; one that has to wait or is refused otherwise is not
    std::uint32_t invalidRecipients = 0; // of them: the mail server knows no such mailbox
    bool finished = false;               // the message came to its end
    bool spam = false;                   // the content filter's verdict, of a finished one
    bool infected = false;
};

// Whoever counts. A front calls it by several threads at once.
class MessageObserver {
  public:
    virtual ~MessageObserver() = default;
    // `now`: seconds since the epoch.
    virtual void messageEnded(MessageSummary const& message, long now) = 0;
};

} // namespace Vellum::Daemon
