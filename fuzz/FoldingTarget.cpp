// A sender's and a recipient's address on their way into a tuple: a byte of switches, and the mailbox.
#include "daemon/AddressFolding.h"
#include "foundation/EmailAddress.h"
#include "fuzz/FuzzTarget.h"
#include "fuzz/Input.h"
#include "fuzz/Parsed.h"

namespace Vellum::Fuzz {
namespace {

void check(std::string_view address, std::string_view folded, std::string_view again) {
    require(folded.empty() == address.empty(), "null stays null, and nothing else becomes it");
    require(folded.size() <= EmailAddress::maxLength, "a folded address is no longer than a mailbox");
    require(again == folded, "what is folded stays as it is");
    require(EmailAddress::fromAddress(folded).domain().size() == EmailAddress::fromAddress(address).domain().size(),
            "a domain stays one");
}

void run(std::string_view input) {
    Input parts(input);
    unsigned int const flags = parts.byte();
    Daemon::AddressFolding const folding{(flags & 1U) != 0, (flags & 2U) != 0, (flags & 4U) != 0};
    auto const mailbox = accepted([&] { return EmailAddress::rfc5321Parse(std::string(parts.rest()), false); });
    if (!mailbox) {
        return;
    }
    std::string const& address = mailbox->address();
    std::string room;
    std::string more;
    std::string const sender(folding.sender(address, room));
    check(address, sender, folding.sender(sender, more));
    std::string const recipient(folding.recipient(address, room));
    check(address, recipient, folding.recipient(recipient, more));
}

Target const target("folding", run);

} // namespace
} // namespace Vellum::Fuzz
