// A mailbox, or the null mailbox "<>" that bounces carry.
//
// What mail servers really let through is wider than RFC 5321: missing domains, doubled dots, %-routes, UTF-8 (RFC
// 6531) and plain garbage bytes. The parser therefore takes any text that can be one mailbox and keeps it byte for
// byte; only what would forge a log line or a packet is refused.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace Vellum {

class EmailAddress {
  public:
    static constexpr std::size_t maxLength = 1024; // octets of a mailbox; a longer text is no mailbox

    EmailAddress() = default; // null

    // Parses one mailbox, with or without angle brackets around it. "<>" is the null mailbox.
    // Strict: RFC 5321 section 4.1.2 with its limits (64, 255, 254 octets); a domain is required.
    // Not strict (what this system uses): the local part is a quoted string or anything without space, angle
    // bracket or '@' before the last '@'; the domain may be missing ("root"), and bytes above 0x7f are taken as
    // they are. Control characters (NUL, line breaks, 0x01, DEL) are refused in both, quoted or not.
    // Throws Exception naming the text (shortened) and what is wrong with it.
    static EmailAddress rfc5321Parse(std::string const& text, bool strict);
    // Becomes what rfc5321Parse(text, false) answers, in the memory it has where `text` is an ordinary mailbox.
    void parse(std::string_view text);
    // The same (not strict) for a mail server's internal form, which has no quotes: "john doe@example.org" stands for
    // "john doe"@example.org, and a text that rfc5321Parse refuses gets its local part quoted. "" is null here.
    static EmailAddress parseUnquoted(std::string const& text);

    // The mailbox whose address() this text is, taken back unchecked from where one was stored; "" is null.
    static EmailAddress fromAddress(std::string_view address) {
        EmailAddress mailbox;
        mailbox.m_text = address;
        return mailbox;
    }
    // Becomes that mailbox, in the memory it has: for one who takes thousands in a row.
    void assignAddress(std::string_view address) { m_text = address; }

    bool isNull() const { return m_text.empty(); }
    // The text without brackets; "" when null. Used for comparison, matching and packets.
    std::string const& address() const { return m_text; }
    std::string_view localPart() const; // before the last '@' outside quotes; all of it when there is none
    std::string_view domain() const;    // after it; "" when there is none
    // The text form of files and packets: address(), or "<>" when null. Parses back to an equal value.
    std::string asString() const;

    // Byte-wise and case-sensitive, on address(); null sorts first.
    bool operator==(EmailAddress const& other) const { return m_text == other.m_text; }
    bool operator<(EmailAddress const& other) const { return m_text < other.m_text; }

  private:
    std::string m_text;
};

// asString() of the address, escaped for a single-quoted SQL string literal: backslash before backslash, quote,
// double quote; control characters cannot occur. MariaDB reads it back to the same bytes (its default SQL mode).
std::string emailAddressEscapedWrite(EmailAddress const& address);
// The same for a text that is known to be an address() (so "" is written "<>"), appended to `out` without a copy.
void appendEscapedAddress(std::string& out, std::string_view address);
// The same into memory with room for twice the address and two characters. Answers where the text ends.
char* writeEscapedAddress(char* out, std::string_view address);

} // namespace Vellum
