#include "foundation/EmailAddress.h"

#include "foundation/Exception.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <random>
#include <vector>

namespace Vellum {
namespace {

// Both ways to parse a text must agree about it.
EmailAddress parse(std::string const& text) {
    EmailAddress parsed = EmailAddress::fromAddress("what.was@there.before");
    try {
        parsed.parse(text);
    } catch (Exception const&) {
        EXPECT_THROW(EmailAddress::rfc5321Parse(text, false), Exception) << text;
        throw;
    }
    EXPECT_EQ(parsed, EmailAddress::rfc5321Parse(text, false)) << text;
    return parsed;
}

std::string problemOf(std::string const& text) {
    try {
        parse(text);
        return "accepted";
    } catch (Exception const& caught) {
        return caught.asString();
    }
}

TEST(EmailAddress, DefaultIsNull) {
    EmailAddress const null;
    EXPECT_TRUE(null.isNull());
    EXPECT_EQ(null.address(), "");
    EXPECT_EQ(null.asString(), "<>");
    EXPECT_EQ(null.localPart(), "");
    EXPECT_EQ(null.domain(), "");
}

TEST(EmailAddress, EmptyBracketsAreNullAndNothingElseIs) {
    EXPECT_TRUE(parse("<>").isNull());
    EXPECT_TRUE(EmailAddress::rfc5321Parse("<>", true).isNull());
    EXPECT_EQ(parse(EmailAddress().asString()), EmailAddress());
    for (char const* text : {"", " ", "< >", "<<>>", "<", ">"}) {
        EXPECT_THROW(parse(text), Exception) << text;
        EXPECT_THROW(EmailAddress::rfc5321Parse(text, true), Exception) << text;
    }
    EXPECT_EQ(parse("\"\"").address(), "\"\"") << "an empty quoted string is a mailbox";
}

TEST(EmailAddress, BracketsAroundAreTakenOff) {
    EXPECT_EQ(parse("<someone@example.org>").address(), "someone@example.org");
    EXPECT_EQ(parse("<root>").address(), "root");
    EXPECT_EQ(parse("<\"<a>\"@example.org>").address(), "\"<a>\"@example.org");
    for (char const* text : {"<someone@example.org", "someone@example.org>", "<<someone@example.org>>",
                             "a<b>@example.org", "x <a@example.org>", "<a@example.org> "}) {
        EXPECT_THROW(parse(text), Exception) << text;
    }
}

TEST(EmailAddress, WhatMailServersLetThroughIsKeptByteForByte) {
    for (char const* text : {"someone@example.org",
                             "Someone@EXAMPLE.org",
                             "root",
                             "a..b@example.org",
                             ".a.@example.org",
                             "user%other.example@relay.example",
                             "a!b!c@example.org",
                             "a@[192.0.2.1]",
                             "a@[IPv6:2001:db8::1]",
                             "a@-",
                             "a@b..c",
                             "a@example.org.",
                             "b'quote@example.org",
                             "back\\slash@example.org",
                             "a@dom'ain\"quote\\",
                             "a,b:c;d(e)@example.org",
                             "\xc3\xbc@\xc3\xbc.example",
                             "\xff\xfe@\x80\xc0",
                             "=?utf-8?q?x?=@example.org",
                             "\"unclosed@example.org",
                             "a\"b@c"}) {
        EXPECT_EQ(parse(text).address(), text);
        EXPECT_EQ(parse(text).asString(), text);
    }
}

TEST(EmailAddress, PartsAreSplitAtTheLastAt) {
    struct Case {
        char const* text;
        char const* local;
        char const* domain;
    };
    Case const cases[] = {
        {"someone@example.org", "someone", "example.org"},
        {"root", "root", ""},
        {"\"a@b\"@example.org", "\"a@b\"", "example.org"},
        {"\"a@b\"", "\"a@b\"", ""},
        {R"("a\"@b"@example.org)", R"("a\"@b")", "example.org"},
        {R"("a\\"@example.org)", R"("a\\")", "example.org"},
        {R"("a b"@example.org)", R"("a b")", "example.org"},
        {R"("a\"@example.org)", R"("a\")", "example.org"}, // never closed: not a quoted string
        {R"("a@example.org)", R"("a)", "example.org"},
        {R"("a"b@example.org)", R"("a"b)", "example.org"},
        {R"("a@b"c)", R"("a)", R"(b"c)"},
        {"a@[IPv6:::1]", "a", "[IPv6:::1]"},
    };
    for (Case const& c : cases) {
        EmailAddress const address = parse(c.text);
        EXPECT_EQ(address.localPart(), c.local) << c.text;
        EXPECT_EQ(address.domain(), c.domain) << c.text;
    }
}

TEST(EmailAddress, MissingPartsAreRefused) {
    for (char const* text : {"a@", "@b", "@", "<@>", "\"a\"@"}) {
        EXPECT_THROW(parse(text), Exception) << text;
    }
}

TEST(EmailAddress, SecondAtOutsideQuotesIsRefused) {
    for (char const* text : {"a@b@c", "@relay:a@b", "a@@b", "\"a\"@b@c", "\"a@b\".c@d", "\"a\"b@c@d"}) {
        EXPECT_THROW(parse(text), Exception) << text;
    }
}

TEST(EmailAddress, BlankOutsideQuotesIsRefused) {
    for (char const* text : {"a b@example.org", "a@exam ple.org", " a@b", "a@b ", "a b", "\"a\" b@c", "\"a b@c"}) {
        EXPECT_THROW(parse(text), Exception) << text;
    }
}

TEST(EmailAddress, ControlCharactersAreRefusedAnywhere) {
    for (int c = 0; c < 0x100; ++c) {
        bool const control = c < 0x20 || c == 0x7f;
        std::string const inQuotes = std::string("\"a") + static_cast<char>(c) + "b\"@example.org";
        std::string const inDomain = std::string("a@b") + static_cast<char>(c) + "c";
        bool const closesOrEscapes = c == '"';
        if (control) {
            EXPECT_THROW(parse(inQuotes), Exception) << c;
            EXPECT_THROW(EmailAddress::rfc5321Parse(inQuotes, true), Exception) << c;
            EXPECT_THROW(parse(inDomain), Exception) << c;
        } else if (!closesOrEscapes) {
            EXPECT_NO_THROW(parse(inQuotes)) << c;
        }
    }
    EXPECT_THROW(parse(std::string("a\0b@c", 5)), Exception);
    EXPECT_THROW(parse("a@b\n"), Exception);
}

TEST(EmailAddress, LengthEndsAtMaxLength) {
    EXPECT_NO_THROW(parse(std::string(320 - 12, 'a') + "@example.org"));
    std::string const longest = std::string(EmailAddress::maxLength - 12, 'a') + "@example.org";
    EXPECT_EQ(parse(longest).address().size(), 1024U);
    EXPECT_EQ(parse('<' + longest + '>').address(), longest) << "brackets do not count";
    EXPECT_THROW(parse('a' + longest), Exception);
}

TEST(EmailAddress, RefusalNamesTheTextShortenedAndTheProblem) {
    EXPECT_EQ(problemOf("a@b\x01"), "EmailAddress::rfc5321Parse (code 4, EmailAddress): \"a@b\\x01\" is not a mailbox: "
                                    "it holds a control character");
    EXPECT_EQ(problemOf("@b"), "EmailAddress::rfc5321Parse (code 4, EmailAddress): \"@b\" is not a mailbox: "
                               "nothing is before the '@'");
    std::string const longText(2000, 'x');
    EXPECT_EQ(problemOf(longText), "EmailAddress::rfc5321Parse (code 4, EmailAddress): \"" + std::string(100, 'x') +
                                       "...\" is not a mailbox: it is longer than 1024 octets");
}

TEST(EmailAddress, OrderIsByteWiseAndCaseSensitiveWithNullFirst) {
    std::vector<EmailAddress> const ordered = {EmailAddress(),           parse("A@example.org"),
                                               parse("a@Example.org"),   parse("a@example.org"),
                                               parse("a@example.org."),  parse("b"),
                                               parse("\xc3\xbc@example")};
    for (std::size_t i = 0; i < ordered.size(); ++i) {
        for (std::size_t j = 0; j < ordered.size(); ++j) {
            EXPECT_EQ(ordered[i] < ordered[j], i < j) << i << ' ' << j;
            EXPECT_EQ(ordered[i] == ordered[j], i == j) << i << ' ' << j;
        }
    }
}

TEST(EmailAddress, UnquotedFormGetsItsQuotesBack) {
    auto const unquoted = [](char const* text) {
        return EmailAddress::parseUnquoted(text).address();
    };
    EXPECT_EQ(unquoted(""), "");
    EXPECT_EQ(unquoted("<>"), "");
    EXPECT_EQ(unquoted("someone@example.org"), "someone@example.org");
    EXPECT_EQ(unquoted("root"), "root");
    EXPECT_EQ(unquoted("john doe@example.org"), "\"john doe\"@example.org");
    EXPECT_EQ(unquoted("a@b@example.org"), "\"a@b\"@example.org");
    EXPECT_EQ(unquoted("say \"hi\\@example.org"), R"("say \"hi\\"@example.org)");
    EXPECT_EQ(unquoted("<x>@example.org"), "\"<x>\"@example.org");
    EXPECT_EQ(unquoted("@example.org"), "\"\"@example.org");
    EXPECT_EQ(unquoted("two words"), "\"two words\"");
    EXPECT_THROW(unquoted("a\nb@example.org"), Exception);
    EXPECT_THROW(unquoted("a b@exam ple.org"), Exception);
    EXPECT_THROW(unquoted("a@"), Exception);
}

// Texts of the characters that matter most. What is accepted must come back unchanged, through both text forms.
TEST(EmailAddress, RandomTextsThatAreAcceptedParseBackEqual) {
    unsigned int const seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    std::string const alphabet = "ab@@\"\"\\\\<>. '[]%\x01\x7f\xc3\xbc";
    int accepted = 0;
    for (int run = 0; run < 50000; ++run) {
        std::string text;
        for (std::size_t length = random() % 12; length > 0; --length) {
            text += alphabet[random() % alphabet.size()];
        }
        EmailAddress address;
        try {
            address = parse(text);
        } catch (Exception const&) {
            continue;
        }
        ++accepted;
        ASSERT_EQ(address.isNull(), text == "<>");
        ASSERT_EQ(parse(address.asString()), address) << text;
        ASSERT_EQ(parse(address.asString()).asString(), address.asString()) << text;
        ASSERT_EQ(parse('<' + address.address() + '>'), address) << text;
        std::string const at = address.domain().empty() ? "" : "@";
        ASSERT_EQ(std::string(address.localPart()) + at + std::string(address.domain()), address.address());
        ASSERT_EQ(EmailAddress::parseUnquoted(address.asString()), address) << text;
    }
    EXPECT_GT(accepted, 1000) << "the alphabet makes too few mailboxes to prove anything";
}

// What MariaDB makes of the text between two single quotes (its default SQL mode).
std::string readBySql(std::string const& literal) {
    std::string value;
    for (std::size_t i = 0; i < literal.size(); ++i) {
        if (literal[i] == '\\' && ++i == literal.size()) {
            ADD_FAILURE() << "the closing quote would be escaped: " << literal;
            break;
        }
        EXPECT_TRUE(literal[i] != '\'' || literal[i - 1] == '\\') << "the literal would end early: " << literal;
        value += literal[i];
    }
    return value;
}

TEST(EmailAddressEscapedWrite, QuotesAndBackslashesGetABackslash) {
    auto const escaped = [](char const* text) {
        return emailAddressEscapedWrite(parse(text));
    };
    EXPECT_EQ(escaped("a@b"), "a@b");
    EXPECT_EQ(escaped("o'brien@example.org"), "o\\'brien@example.org");
    EXPECT_EQ(escaped("\"a b\"@example.org"), "\\\"a b\\\"@example.org");
    EXPECT_EQ(escaped("back\\slash@b"), "back\\\\slash@b");
    EXPECT_EQ(escaped("end@b\\"), "end@b\\\\");
    EXPECT_EQ(escaped("'\\\"@'"), "\\'\\\\\\\"@\\'");
    EXPECT_EQ(escaped("100%s_@b"), "100%s_@b") << "LIKE is not used, so its wildcards stay";
    EXPECT_EQ(escaped("\xc3\xbc@b"), "\xc3\xbc@b");
}

TEST(EmailAddressEscapedWrite, NullIsTwoBrackets) {
    EXPECT_EQ(emailAddressEscapedWrite(EmailAddress()), "<>");
    std::string out = "(";
    appendEscapedAddress(out, "");
    EXPECT_EQ(out, "(<>");
}

TEST(EmailAddressEscapedWrite, AppendsToWhatIsThere) {
    std::string out = "x'";
    appendEscapedAddress(out, "o'b@c");
    EXPECT_EQ(out, "x'o\\'b@c");
}

TEST(EmailAddressEscapedWrite, RandomTextsReadBackEqual) {
    unsigned int const seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    std::string const alphabet = "ab'\"\\%_n0\xc3";
    for (int run = 0; run < 20000; ++run) {
        std::string text;
        for (std::size_t length = 1 + random() % 10; length > 0; --length) {
            text += alphabet[random() % alphabet.size()];
        }
        std::string literal;
        appendEscapedAddress(literal, text);
        ASSERT_EQ(readBySql(literal), text);
    }
}

} // namespace
} // namespace Vellum
