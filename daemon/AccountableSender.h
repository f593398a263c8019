// Whom rate control holds to account for a message, and under which name.
//
// Who has logged in, whatever he writes as the sender: whoever stole a password can write another one into each
// message. His login is the name, in lower case throughout, since login names mostly hold in any case; it is a mailbox
// (jo@example.org) or has no domain (jo). Others are held to account on demand only, under the envelope's sender with
// its domain in lower case. So a name that is written in another case is not another sender.
#pragma once

#include "foundation/EmailAddress.h"

#include <string_view>
#include <vector>

namespace Vellum::Daemon {

// Null for nobody. `strangers`: also senders that have not logged in. A login that no mailbox can hold, as with control
// characters in it, leaves the envelope's sender.
EmailAddress accountableSender(EmailAddress const& sender, std::string_view authenticatedUser, bool strangers);

// The names under which the sender that somebody means by `written` may be known, the most exact one first.
std::vector<EmailAddress> accountableNames(EmailAddress const& written);

} // namespace Vellum::Daemon
