// rfc5321Parse in its strict form: RFC 5321, section 4.1.2 and the limits of 4.5.3.1.
#include "foundation/EmailAddress.h"

#include "foundation/Exception.h"

#include <gtest/gtest.h>
#include <string>

namespace Vellum {
namespace {

bool isAccepted(std::string const& text) {
    try {
        return EmailAddress::rfc5321Parse(text, true).address() == text;
    } catch (Exception const&) {
        return false;
    }
}

std::string times(std::size_t count, std::string const& text) {
    std::string out;
    while (count-- > 0) {
        out += text;
    }
    return out;
}

TEST(EmailAddressStrict, DomainIsRequired) {
    EXPECT_TRUE(isAccepted("root@localhost"));
    EXPECT_FALSE(isAccepted("root"));
    EXPECT_FALSE(isAccepted("\"a@b\""));
}

TEST(EmailAddressStrict, LocalPartIsAtomsWithDotsBetween) {
    EXPECT_TRUE(isAccepted("a.b.c@example.org"));
    EXPECT_TRUE(isAccepted("!#$%&'*+-/=?^_`{|}~09azAZ@example.org"));
    for (char const* text : {".a@b", "a.@b", "a..b@b", "a,b@b", "a:b@b", "a(b)@b", "a[b]@b", "a\\b@b", "\"a@b",
                             "a\"b\"@b", "\"a\"b@c", "\xc3\xbc@b"}) {
        EXPECT_FALSE(isAccepted(text)) << text;
    }
}

TEST(EmailAddressStrict, LocalPartMayBeAQuotedString) {
    for (char const* text :
         {R"("a b"@example.org)", R"("a@b"@example.org)", R"("\"\\"@example.org)", R"(""@example.org)"}) {
        EXPECT_TRUE(isAccepted(text)) << text;
    }
    EXPECT_FALSE(isAccepted("\"\xc3\xbc\"@example.org"));
}

TEST(EmailAddressStrict, DomainIsLabelsWithDotsBetween) {
    EXPECT_TRUE(isAccepted("a@example.org"));
    EXPECT_TRUE(isAccepted("a@x--y.0"));
    for (char const* text : {"a@.b", "a@b.", "a@b..c", "a@-b", "a@b-", "a@b_c", "a@b'c", "a@\xc3\xbc.example"}) {
        EXPECT_FALSE(isAccepted(text)) << text;
    }
}

TEST(EmailAddressStrict, DomainMayBeAnAddressLiteral) {
    for (char const* text : {"a@[192.0.2.1]", "a@[IPv6:2001:db8::1]", "a@[ipv6:::1]"}) {
        EXPECT_TRUE(isAccepted(text)) << text;
    }
    for (char const* text : {"a@[]", "a@[192.0.2.256]", "a@[192.0.2.1", "a@192.0.2.1]", "a@[2001:db8::1]", "a@[IPv6:x]",
                             "a@[IPv6:192.0.2.1]", "a@[::1]", "a@[IPv6:]", "a@[IPv4:192.0.2.1]", "a@[tag:x]"}) {
        EXPECT_FALSE(isAccepted(text)) << text;
    }
}

TEST(EmailAddressStrict, LocalPartEndsAt64Octets) {
    EXPECT_TRUE(isAccepted(std::string(64, 'a') + "@b"));
    EXPECT_FALSE(isAccepted(std::string(65, 'a') + "@b"));
}

TEST(EmailAddressStrict, LabelEndsAt63Octets) {
    EXPECT_TRUE(isAccepted("a@" + std::string(63, 'b')));
    EXPECT_FALSE(isAccepted("a@" + std::string(64, 'b')));
}

TEST(EmailAddressStrict, MailboxEndsAt254Octets) {
    std::string const domain = times(126, "b.") + "c"; // 253 octets
    EXPECT_FALSE(isAccepted("a@" + domain)) << "255";
    EXPECT_TRUE(isAccepted("a@" + domain.substr(2) + "d")) << "254";
}

} // namespace
} // namespace Vellum
