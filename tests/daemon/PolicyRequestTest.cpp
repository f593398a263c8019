#include "daemon/PolicyRequest.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>
#include <string>
#include <vector>

using Vellum::Daemon::PolicyAttribute;
using Vellum::Daemon::policyAttribute;
using Vellum::Daemon::policyAttributeCount;
using Vellum::Daemon::policyAttributeName;
using Vellum::Daemon::PolicyRequest;
using Vellum::Daemon::PolicyRequestParser;
using Outcome = PolicyRequestParser::Outcome;

namespace {

using Line = std::pair<std::string, std::string>;

// A request as Postfix 3.8 sends it.
std::vector<Line> const realLines{
    {"request", "smtpd_access_policy"},
    {"protocol_state", "RCPT"},
    {"protocol_name", "ESMTP"},
    {"client_address", "2001:db8::25"},
    {"client_name", "mail.example.net"},
    {"client_port", "43528"},
    {"reverse_client_name", "out.example.net"},
    {"server_address", "192.0.2.25"},
    {"server_port", "25"},
    {"helo_name", "helo.example.net"},
    {"sender", "someone=example.com@lists.example.net"},
    {"recipient", "postmaster@example.org"},
    {"recipient_count", "0"},
    {"queue_id", "8045F2AB23"},
    {"instance", "100b8.59a471b5.5f0ac.0"},
    {"size", "12345"},
    {"etrn_domain", "etrn.example.org"},
    {"stress", "yes"},
    {"sasl_method", "plain"},
    {"sasl_username", "you"},
    {"sasl_sender", "other@example.net"},
    {"ccert_subject", "solaris9.example.com"},
    {"ccert_issuer", "Some+20Issuer"},
    {"ccert_fingerprint", "C2:9D:F4:87"},
    {"ccert_pubkey_fingerprint", "68:B3:29:DA"},
    {"encryption_protocol", "TLSv1.3"},
    {"encryption_cipher", "TLS_AES_256_GCM_SHA384"},
    {"encryption_keysize", "256"},
    {"policy_context", "submission"},
    {"compatibility_level", "3.8"},
    {"mail_version", "3.8.6"},
};

std::string asRequest(std::vector<Line> const& lines) {
    std::string text;
    for (auto const& [name, value] : lines) {
        text += name;
        text += '=';
        text += value;
        text += '\n';
    }
    return text + '\n';
}

std::vector<std::string> valuesOf(PolicyRequest const& request) {
    std::vector<std::string> values;
    for (std::size_t i = 0; i < policyAttributeCount; ++i) {
        auto const attribute = static_cast<PolicyAttribute>(i);
        values.push_back(request.has(attribute) ? std::string(request[attribute]) : "(absent)");
    }
    return values;
}

// What valuesOf() shall be, by a map: the reference.
std::vector<std::string> expectedValues(std::vector<Line> const& lines) {
    std::map<std::string, std::string> byName;
    for (auto const& [name, value] : lines) {
        byName[name] = value;
    }
    std::vector<std::string> values;
    for (std::size_t i = 0; i < policyAttributeCount; ++i) {
        auto const found = byName.find(std::string(policyAttributeName(static_cast<PolicyAttribute>(i))));
        values.push_back(found == byName.end() ? "(absent)" : found->second);
    }
    return values;
}

// What the parser says of text that arrives as a whole, and why.
std::string problemOf(std::string const& text) {
    PolicyRequestParser parser;
    switch (parser.parse(text)) {
    case Outcome::complete:
        return "complete";
    case Outcome::incomplete:
        return "incomplete";
    case Outcome::broken:
        break;
    }
    return parser.problem(text);
}

std::string attributes(std::size_t count) {
    std::string text;
    for (std::size_t i = 0; i < count; ++i) {
        text += "a=\n";
    }
    return text;
}

} // namespace

TEST(PolicyAttributes, AreAllOfARealRequest) {
    ASSERT_EQ(realLines.size(), policyAttributeCount);
    for (std::size_t i = 0; i < policyAttributeCount; ++i) {
        auto const attribute = static_cast<PolicyAttribute>(i);
        EXPECT_EQ(policyAttributeName(attribute), realLines[i].first);
        EXPECT_EQ(policyAttribute(realLines[i].first), attribute);
    }
}

TEST(PolicyAttributes, NamesThatResembleThemAreUnknown) {
    for (auto const& [name, value] : realLines) {
        EXPECT_FALSE(policyAttribute(name + "x")) << name;
        EXPECT_FALSE(policyAttribute(name.substr(1))) << name;
        EXPECT_FALSE(policyAttribute(name.substr(0, name.size() - 1))) << name;
        std::string changed = name;
        changed[changed.size() / 2] ^= 1;
        EXPECT_FALSE(policyAttribute(changed)) << changed;
        changed = name;
        changed[0] ^= 0x20;
        EXPECT_FALSE(policyAttribute(changed)) << changed << ": names are in lower case";
    }
    for (char const* name : {"", "s", "siz", "SIZE", "sizes", "client_addres", "\xff\xff\xff\xff"}) {
        EXPECT_FALSE(policyAttribute(name)) << name;
    }
}

TEST(PolicyRequest, ARealRequestLandsInItsFields) {
    std::string const text = asRequest(realLines);
    PolicyRequestParser parser;
    ASSERT_EQ(parser.parse(text), Outcome::complete);
    EXPECT_EQ(parser.length(), text.size());
    EXPECT_EQ(parser.request()[PolicyAttribute::clientAddress], "2001:db8::25");
    EXPECT_EQ(parser.request()[PolicyAttribute::sender], "someone=example.com@lists.example.net");
    EXPECT_EQ(parser.request()[PolicyAttribute::mailVersion], "3.8.6");
    EXPECT_EQ(valuesOf(parser.request()), expectedValues(realLines));
}

TEST(PolicyRequest, WhatPostfix37SendsIsRead) {
    // Recorded from Postfix 3.7.11, a bounce to its first recipient.
    std::string const text = "request=smtpd_access_policy\n"
                             "protocol_state=RCPT\n"
                             "protocol_name=ESMTP\n"
                             "client_address=127.0.0.1\n"
                             "client_name=localhost\n"
                             "client_port=52846\n"
                             "reverse_client_name=localhost\n"
                             "server_address=127.0.0.1\n"
                             "server_port=12525\n"
                             "helo_name=helo.example.net\n"
                             "sender=\n"
                             "recipient=d@example.org\n"
                             "recipient_count=0\n"
                             "queue_id=\n"
                             "instance=7b9d.6b0174c5.c9040.1\n"
                             "size=0\n"
                             "etrn_domain=\n"
                             "stress=\n"
                             "sasl_method=\n"
                             "sasl_username=\n"
                             "sasl_sender=\n"
                             "ccert_subject=\n"
                             "ccert_issuer=\n"
                             "ccert_fingerprint=\n"
                             "ccert_pubkey_fingerprint=\n"
                             "encryption_protocol=\n"
                             "encryption_cipher=\n"
                             "encryption_keysize=0\n"
                             "policy_context=\n"
                             "\n";
    PolicyRequestParser parser;
    ASSERT_EQ(parser.parse(text), Outcome::complete);
    EXPECT_EQ(parser.length(), text.size());
    EXPECT_EQ(parser.request()[PolicyAttribute::instance], "7b9d.6b0174c5.c9040.1");
    EXPECT_EQ(parser.request()[PolicyAttribute::recipient], "d@example.org");
    EXPECT_TRUE(parser.request().has(PolicyAttribute::sender));
    EXPECT_TRUE(parser.request().has(PolicyAttribute::policyContext));
    EXPECT_FALSE(parser.request().has(PolicyAttribute::compatibilityLevel));
}

TEST(PolicyRequest, ValuesAreNotCopied) {
    std::string const text = "sender=a@example.net\n\n";
    PolicyRequestParser parser;
    ASSERT_EQ(parser.parse(text), Outcome::complete);
    EXPECT_EQ(parser.request()[PolicyAttribute::sender].data(), text.data() + 7);
}

TEST(PolicyRequest, ASplitAtAnyPositionChangesNothing) {
    std::string const text = asRequest(realLines);
    for (std::size_t split = 0; split < text.size(); ++split) {
        PolicyRequestParser parser;
        // Each piece from memory of its own: nothing may depend on where the first one was.
        std::string const first = text.substr(0, split);
        ASSERT_EQ(parser.parse(first), Outcome::incomplete) << split;
        EXPECT_EQ(parser.insideRequest(), split > 0);
        ASSERT_EQ(parser.parse(text), Outcome::complete) << split;
        EXPECT_EQ(parser.length(), text.size());
        EXPECT_EQ(valuesOf(parser.request()), expectedValues(realLines)) << split;
    }
}

TEST(PolicyRequest, OneByteAtATimeIsARequestAtItsLastByte) {
    std::string const text = asRequest(realLines);
    PolicyRequestParser parser;
    for (std::size_t length = 1; length < text.size(); ++length) {
        ASSERT_EQ(parser.parse(text.substr(0, length)), Outcome::incomplete) << length;
    }
    ASSERT_EQ(parser.parse(text), Outcome::complete);
    EXPECT_EQ(valuesOf(parser.request()), expectedValues(realLines));
}

TEST(PolicyRequest, OrderDoesNotMatter) {
    unsigned int const seed = std::random_device()();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    std::vector<Line> lines = realLines;
    for (int i = 0; i < 200; ++i) {
        std::shuffle(lines.begin(), lines.end(), random);
        std::string const text = asRequest(lines);
        PolicyRequestParser parser;
        ASSERT_EQ(parser.parse(text), Outcome::complete);
        ASSERT_EQ(valuesOf(parser.request()), expectedValues(realLines)) << text;
    }
}

TEST(PolicyRequest, AnAttributeThatIsLeftOutInTheUsualOrderLeavesTheOthers) {
    for (std::size_t i = 0; i < realLines.size(); ++i) {
        std::vector<Line> lines = realLines;
        lines.erase(lines.begin() + static_cast<std::ptrdiff_t>(i));
        std::string const text = asRequest(lines);
        PolicyRequestParser parser;
        ASSERT_EQ(parser.parse(text), Outcome::complete);
        EXPECT_EQ(valuesOf(parser.request()), expectedValues(lines)) << "without " << realLines[i].first;
    }
}

TEST(PolicyRequest, OneOtherCharacterMakesANameAnother) {
    for (std::size_t i = 0; i < realLines.size(); ++i) {
        for (std::size_t position = 0; position < realLines[i].first.size(); ++position) {
            std::vector<Line> lines = realLines;
            lines[i].first[position] = '!';
            std::string const text = asRequest(lines);
            PolicyRequestParser parser;
            ASSERT_EQ(parser.parse(text), Outcome::complete);
            ASSERT_EQ(valuesOf(parser.request()), expectedValues(lines)) << lines[i].first;
        }
    }
}

TEST(PolicyRequest, UnknownAttributesAreSkipped) {
    std::string const text = "future_attribute=x\nsender=a@example.net\n=no name\nx=\nX-Y z=1\nsize=7\n\n";
    PolicyRequestParser parser;
    ASSERT_EQ(parser.parse(text), Outcome::complete);
    EXPECT_EQ(valuesOf(parser.request()), expectedValues({{"sender", "a@example.net"}, {"size", "7"}}));
}

TEST(PolicyRequest, OfARepeatedAttributeTheLastCounts) {
    std::string const text = "sender=first\nsize=1\nsender=second\nsize=\n\n";
    PolicyRequestParser parser;
    ASSERT_EQ(parser.parse(text), Outcome::complete);
    EXPECT_EQ(parser.request()[PolicyAttribute::sender], "second");
    EXPECT_EQ(parser.request()[PolicyAttribute::size], "");
    EXPECT_TRUE(parser.request().has(PolicyAttribute::size));
}

TEST(PolicyRequest, AValueMayBeEmptyOrHoldEqualSigns) {
    std::string const text = "sender=\nrecipient==a=b=\n\n";
    PolicyRequestParser parser;
    ASSERT_EQ(parser.parse(text), Outcome::complete);
    EXPECT_EQ(parser.request()[PolicyAttribute::sender], "");
    EXPECT_TRUE(parser.request().has(PolicyAttribute::sender));
    EXPECT_EQ(parser.request()[PolicyAttribute::recipient], "=a=b=");
    EXPECT_EQ(parser.request()[PolicyAttribute::size], "");
    EXPECT_FALSE(parser.request().has(PolicyAttribute::size));
}

TEST(PolicyRequest, NothingOfARequestIsLeftInTheNext) {
    std::string const first = asRequest(realLines);
    std::string const second = "size=1\n\n";
    std::string const both = first + second;
    PolicyRequestParser parser;
    ASSERT_EQ(parser.parse(both), Outcome::complete);
    ASSERT_EQ(parser.length(), first.size());
    parser.next();
    EXPECT_FALSE(parser.insideRequest());
    std::string_view const rest = std::string_view(both).substr(first.size());
    ASSERT_EQ(parser.parse(rest), Outcome::complete);
    EXPECT_EQ(parser.length(), second.size());
    EXPECT_EQ(valuesOf(parser.request()), expectedValues({{"size", "1"}}));
}

TEST(PolicyRequest, ManyRequestsInAnyPiecesEqualTheReference) {
    unsigned int const seed = std::random_device()();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    auto const upTo = [&random](std::size_t most) {
        return std::uniform_int_distribution<std::size_t>(0, most)(random);
    };
    auto const randomText = [&](std::size_t longest) {
        std::string text(upTo(longest), ' ');
        for (char& c : text) {
            do {
                c = static_cast<char>(upTo(255));
            } while (c == '\n' || c == '\0');
        }
        return text;
    };

    std::vector<std::vector<Line>> requests(200);
    std::string stream;
    for (auto& lines : requests) {
        for (std::size_t left = 1 + upTo(40); left > 0; --left) {
            std::string name = realLines[upTo(realLines.size() - 1)].first;
            if (upTo(4) == 0) {
                name = randomText(30);
                std::erase(name, '=');
            }
            lines.emplace_back(name, randomText(50));
        }
        stream += asRequest(lines);
    }

    for (std::size_t const longestPiece : {1U, 7U, 100U, 5000U}) {
        PolicyRequestParser parser;
        std::string received;
        std::size_t arrived = 0;
        std::size_t answered = 0;
        while (arrived < stream.size()) {
            std::size_t const piece = std::min(1 + upTo(longestPiece - 1), stream.size() - arrived);
            received = std::string(received) + stream.substr(arrived, piece);
            arrived += piece;
            while (parser.parse(received) == Outcome::complete) {
                ASSERT_LT(answered, requests.size());
                ASSERT_EQ(valuesOf(parser.request()), expectedValues(requests[answered])) << "request " << answered;
                ++answered;
                received = received.substr(parser.length());
                parser.next();
            }
            ASSERT_EQ(parser.problem(received), "");
        }
        EXPECT_EQ(answered, requests.size()) << "pieces up to " << longestPiece;
        EXPECT_EQ(received, "");
        EXPECT_FALSE(parser.insideRequest());
    }
}

TEST(PolicyProtocolError, NamesTheLine) {
    EXPECT_EQ(problemOf("GET / HTTP/1.1\r\n"), R"(line 1 "GET / HTTP/1.1\r" is not name=value)");
    EXPECT_EQ(problemOf("size=1\nsender=\nQUIT\n\n"), R"(line 3 "QUIT" is not name=value)");
    EXPECT_EQ(problemOf("size=1\r\n\r\n"), R"(line 2 "\r" is not name=value)");
    EXPECT_EQ(problemOf("\x16\x03\x01\xff\n"), R"(line 1 "\x16\x03\x01\xff" is not name=value)");
    EXPECT_EQ(problemOf(std::string(64, 'x') + "\n"), "line 1 \"" + std::string(64, 'x') + "\" is not name=value");
    EXPECT_EQ(problemOf(std::string(65, 'x') + "\n"), "line 1 \"" + std::string(64, 'x') + "\"... is not name=value");
}

TEST(PolicyProtocolError, ALineIsRefusedBeforeTheRequestEnds) {
    PolicyRequestParser parser;
    EXPECT_EQ(parser.parse("size=1\nQUI"), Outcome::incomplete);
    EXPECT_EQ(parser.parse("size=1\nQUIT\n"), Outcome::broken);
    EXPECT_EQ(parser.problem("size=1\nQUIT\n"), R"(line 2 "QUIT" is not name=value)");
}

TEST(PolicyProtocolError, NulIsRefusedAsSoonAsItArrives) {
    std::string const atEnd("size=1\nsender=a\0b\n\n", 19);
    EXPECT_EQ(problemOf(atEnd), R"(line 2 "sender=a\x00b" contains a NUL byte)");
    EXPECT_EQ(problemOf(std::string("\0", 1)), R"(line 1 "\x00" contains a NUL byte)");
    EXPECT_EQ(problemOf(std::string("size=1\n\0", 8)), R"(line 2 "\x00" contains a NUL byte)");
    for (std::size_t split = 0; split < 15; ++split) {
        PolicyRequestParser parser;
        EXPECT_EQ(parser.parse(atEnd.substr(0, split)), Outcome::incomplete);
        EXPECT_EQ(parser.parse(atEnd), Outcome::broken) << split;
    }
}

TEST(PolicyProtocolError, NulInTheNextRequestLeavesThisOneAlone) {
    std::string const text("size=1\n\nsize=\0\n\n", 16);
    PolicyRequestParser parser;
    ASSERT_EQ(parser.parse(text), Outcome::complete);
    EXPECT_EQ(parser.length(), 8U);
    parser.next();
    EXPECT_EQ(parser.parse(text.substr(8)), Outcome::broken);
}

TEST(PolicyProtocolError, AnEmptyLineIsNoRequest) {
    EXPECT_EQ(problemOf("\n"), "an empty line where a request should begin");
    EXPECT_EQ(problemOf("\nsize=1\n\n"), "an empty line where a request should begin");
}

TEST(PolicyProtocolError, ARequestHasAtMost64KiB) {
    std::string const begin = "size=1\nsender=";
    std::string const largest = begin + std::string(65536 - begin.size() - 2, 'x') + "\n\n";
    std::string const larger = begin + std::string(65536 - begin.size() - 1, 'x') + "\n\n";
    EXPECT_EQ(problemOf(largest), "complete");
    EXPECT_EQ(problemOf(largest.substr(0, 65535)), "incomplete");
    EXPECT_EQ(problemOf(larger), "no empty line within 65536 bytes");
    EXPECT_EQ(problemOf(larger.substr(0, 65536)), "no empty line within 65536 bytes");
    EXPECT_EQ(problemOf(std::string(70000, 'x')), "no empty line within 65536 bytes");
}

TEST(PolicyProtocolError, TheLargestRequestIsTakenByteByByte) {
    std::string const text = "sender=" + std::string(65536 - 9, 'x') + "\n\n";
    PolicyRequestParser parser;
    for (std::size_t length = 1; length < text.size(); ++length) {
        ASSERT_EQ(parser.parse(std::string_view(text).substr(0, length)), Outcome::incomplete) << length;
    }
    ASSERT_EQ(parser.parse(text), Outcome::complete);
    EXPECT_EQ(parser.request()[PolicyAttribute::sender].size(), 65527U);
}

TEST(PolicyProtocolError, ARequestHasAtMost512Attributes) {
    EXPECT_EQ(problemOf(attributes(512) + "\n"), "complete");
    EXPECT_EQ(problemOf(attributes(513)), "more than 512 attributes in one request");
}
