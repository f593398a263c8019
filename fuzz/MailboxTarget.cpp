// A mailbox, as mail servers, rows and administrators write it.
#include "foundation/EmailAddress.h"
#include "fuzz/FuzzTarget.h"
#include "fuzz/Parsed.h"
#include "fuzz/SqlText.h"

#include <algorithm>

namespace Vellum::Fuzz {
namespace {

std::optional<EmailAddress> mailbox(std::string_view text, bool strict) {
    return accepted([&] { return EmailAddress::rfc5321Parse(std::string(text), strict); });
}

void checkValue(EmailAddress const& value) {
    std::string const& address = value.address();
    require(mailbox(value.asString(), false) == value, "a mailbox reads back");
    require(EmailAddress::fromAddress(address) == value, "an address taken back is the same mailbox");
    require(address.size() <= EmailAddress::maxLength, "a mailbox has a greatest length");
    require(std::none_of(address.begin(), address.end(), [](unsigned char c) { return c < 0x20 || c == 0x7f; }),
            "a mailbox holds no control character");
    std::string whole(value.localPart());
    if (!value.domain().empty()) {
        whole.append("@").append(value.domain());
    }
    require(whole == address, "local part and domain are the whole");
    require(sqlLiteral("'" + emailAddressEscapedWrite(value) + "'") == value.asString(), "what is escaped reads back");
}

// What a parser makes of a mailbox that holds something already.
void checkReuse(std::string_view text, std::optional<EmailAddress> const& loose) {
    EmailAddress const before = EmailAddress::fromAddress("before@example.org");
    EmailAddress reused = before;
    auto const done = accepted([&] {
        reused.parse(text);
        return true;
    });
    require(done.has_value() == loose.has_value(), "parse() takes what rfc5321Parse() takes");
    require(reused == (loose ? *loose : before), "parse() answers the same, and a refusal changes nothing");
}

void run(std::string_view input) {
    auto const loose = mailbox(input, false);
    auto const strict = mailbox(input, true);
    require(!strict || strict == loose, "a strict mailbox is a loose one, and the same");
    if (loose) {
        checkValue(*loose);
    }
    checkReuse(input, loose);
    if (auto const unquoted = accepted([&] { return EmailAddress::parseUnquoted(std::string(input)); })) {
        checkValue(*unquoted);
    }
}

Target const target("mailbox", run);

} // namespace
} // namespace Vellum::Fuzz
