#include "foundation/EmailAddress.h"

#include "foundation/Escape.h"
#include "foundation/Exception.h"
#include "foundation/MailboxSyntax.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <numeric>

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

void EmailAddress::parse(std::string_view text) {
    if (text.size() <= maxLength && MailboxSyntax::isOrdinary(text)) {
        m_text = text;
    } else {
        *this = rfc5321Parse(std::string(text), false);
    }
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

namespace {

// Whether any of the eight bytes equals `c`. (Bit trick: a byte of the difference is zero.)
bool holds(std::uint64_t eight, char c) {
    constexpr std::uint64_t ones = 0x0101010101010101ULL;
    std::uint64_t const difference = eight ^ (ones * static_cast<unsigned char>(c));
    return ((difference - ones) & ~difference & (ones << 7)) != 0;
}

bool isSpecial(char c) {
    return c == '\\' || c == '\'' || c == '"';
}

char* writeEscaped(char* out, char c) {
    if (isSpecial(c)) {
        *out++ = '\\';
    }
    *out++ = c;
    return out;
}

} // namespace

// Backups do this for every address they hold, so eight bytes are looked at together.
char* writeEscapedAddress(char* out, std::string_view address) {
    if (address.empty()) {
        address = nullText;
    }
    char const* in = address.data();
    char const* const end = in + address.size();
    for (std::uint64_t eight = 0; end - in >= 8; in += 8) {
        std::memcpy(&eight, in, sizeof eight);
        if (holds(eight, '\\') || holds(eight, '\'') || holds(eight, '"')) {
            out = std::accumulate(in, in + 8, out, writeEscaped);
        } else {
            std::memcpy(out, &eight, sizeof eight);
            out += 8;
        }
    }
    return std::accumulate(in, end, out, writeEscaped);
}

void appendEscapedAddress(std::string& out, std::string_view address) {
    std::size_t const before = out.size();
    out.resize(before + 2 * address.size() + nullText.size());
    char* const end = writeEscapedAddress(out.data() + before, address);
    out.resize(static_cast<std::size_t>(end - out.data()));
}

} // namespace Vellum
