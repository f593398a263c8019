#include "foundation/EmailAddress.h"

#include "foundation/Escape.h"
#include "foundation/Exception.h"
#include "foundation/MailboxSyntax.h"

#include <algorithm>

namespace Vellum {
namespace {

constexpr std::string_view nullText = "<>";

[[noreturn]] void refuse(std::string const& text, char const* problem) {
    constexpr std::size_t shown = 100; // octets of the text in the message
    std::string const ellipsis = text.size() > shown ? "..." : "";
    throw Exception("EmailAddress::rfc5321Parse", Exception::failure, "EmailAddress")
        .stringParameter('"' + escapeControls(text.substr(0, shown)) + ellipsis + "\" is not a mailbox: " + problem);
}

// `text` with the part before its last '@' as a quoted string.
std::string withQuotedLocalPart(std::string const& text) {
    std::size_t const at = std::min(text.rfind('@'), text.size());
    std::string quoted = "\"";
    for (char const c : text.substr(0, at)) {
        if (c == '"' || c == '\\') {
            quoted += '\\';
        }
        quoted += c;
    }
    return quoted + '"' + text.substr(at);
}

std::string_view withoutBrackets(std::string_view text) {
    bool const bracketed = text.size() >= 2 && text.front() == '<' && text.back() == '>';
    return bracketed ? text.substr(1, text.size() - 2) : text;
}

} // namespace

EmailAddress EmailAddress::rfc5321Parse(std::string const& text, bool strict) {
    if (text == nullText) {
        return {};
    }
    std::string_view const mailbox = withoutBrackets(text);
    if (mailbox.empty()) {
        refuse(text, "it is empty");
    }
    if (mailbox.size() > maxLength) {
        refuse(text, "it is longer than 1024 octets");
    }
    char const* problem = MailboxSyntax::problemOfLoose(mailbox);
    if (problem == nullptr && strict) {
        problem = MailboxSyntax::problemOfStrict(mailbox);
    }
    if (problem != nullptr) {
        refuse(text, problem);
    }
    EmailAddress address;
    address.m_text = mailbox;
    return address;
}

EmailAddress EmailAddress::parseUnquoted(std::string const& text) {
    if (text.empty()) {
        return {};
    }
    bool const loose = MailboxSyntax::problemOfLoose(text) == nullptr;
    return rfc5321Parse(loose || text == nullText ? text : withQuotedLocalPart(text), false);
}

std::string_view EmailAddress::localPart() const {
    return MailboxSyntax::split(m_text).local;
}

std::string_view EmailAddress::domain() const {
    return MailboxSyntax::split(m_text).domain;
}

std::string EmailAddress::asString() const {
    return isNull() ? std::string(nullText) : m_text;
}

std::string emailAddressEscapedWrite(EmailAddress const& address) {
    std::string out;
    appendEscapedAddress(out, address.address());
    return out;
}

void appendEscapedAddress(std::string& out, std::string_view address) {
    if (address.empty()) {
        out += nullText;
        return;
    }
    constexpr std::string_view special = "\\'\"";
    for (;;) {
        std::size_t const plain = address.find_first_of(special);
        out += address.substr(0, plain);
        if (plain == std::string_view::npos) {
            return;
        }
        out += '\\';
        out += address[plain];
        address.remove_prefix(plain + 1);
    }
}

} // namespace Vellum
