// What a mailbox may look like: the grammar behind EmailAddress::rfc5321Parse.
//
// Both checks answer what is wrong with a mailbox (without brackets), as the end of a sentence, or null when nothing
// is.
#pragma once

#include <string_view>

namespace Vellum::MailboxSyntax {

// A mailbox in its parts, pointing into the text it was split from.
struct Parts {
    std::string_view local;
    std::string_view domain;
    bool hasDomain; // there was an '@' between them
};

// Splits at the '@' after a quoted local part, else at the last one.
Parts split(std::string_view mailbox);

// Whether one look at its bytes tells that nothing is wrong by the rules of problemOfLoose(), as with nearly every
// mailbox: no quotes, brackets, blanks or control characters, and one '@' with something on either side.
bool isOrdinary(std::string_view mailbox);

// The rules of this system, for what mail servers really let through (EmailAddress.h).
char const* problemOfLoose(std::string_view mailbox);

// RFC 5321 section 4.1.2 and 4.5.3.1.
char const* problemOfStrict(std::string_view mailbox);

} // namespace Vellum::MailboxSyntax
