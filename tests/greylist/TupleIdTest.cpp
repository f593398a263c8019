#include "greylist/TupleId.h"

#include "RandomIdentities.h"
#include "foundation/Exception.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <tuple>
#include <vector>

namespace Vellum::GreyList {
namespace {

using testing::HasSubstr;

constexpr char const* network = "192.0.2.0/24";

// A search with the parts must go where a search with the identity goes.
void expectPartsStandForIt(TupleId const& id, TupleId const& other) {
    TupleParts const parts = id->parts();
    EXPECT_EQ(KeyOrder<TupleId>::prefix(parts), KeyOrder<TupleId>::prefix(id));
    EXPECT_EQ(KeyOrder<TupleId>::compare(id, parts), 0);
    EXPECT_EQ(KeyOrder<TupleId>::compare(other, parts) < 0, other < id);
    EXPECT_EQ(KeyOrder<TupleId>::compare(other, parts) > 0, id < other);
}

void expectLess(TupleId const& less, TupleId const& more) {
    EXPECT_TRUE(less < more);
    EXPECT_FALSE(more < less);
    EXPECT_FALSE(less == more);
    EXPECT_LT(KeyOrder<TupleId>::compare(less, more), 0);
    EXPECT_GT(KeyOrder<TupleId>::compare(more, less), 0);
    EXPECT_LE(KeyOrder<TupleId>::prefix(less), KeyOrder<TupleId>::prefix(more));
}

void expectEqual(TupleId const& one, TupleId const& other) {
    EXPECT_TRUE(one == other);
    EXPECT_FALSE(one < other);
    EXPECT_FALSE(other < one);
    EXPECT_EQ(KeyOrder<TupleId>::compare(one, other), 0);
    EXPECT_EQ(KeyOrder<TupleId>::prefix(one), KeyOrder<TupleId>::prefix(other));
}

TEST(TupleId, KeepsItsParts) {
    TupleId const id = tuple("2001:db8::/64", "Sender@Example.net", "recipient@example.org");
    EXPECT_EQ(id->mask(), IPAddressMask("2001:db8::/64"));
    EXPECT_EQ(id->sender().address(), "Sender@Example.net");
    EXPECT_EQ(id->recipient().address(), "recipient@example.org");
    EXPECT_EQ(id->senderAddress(), "Sender@Example.net");
    EXPECT_EQ(id->recipientAddress(), "recipient@example.org");
}

TEST(TupleId, KeepsNullMailboxesAndTheNullNetwork) {
    TupleId const id((IPAddressMask()), EmailAddress(), EmailAddress());
    EXPECT_FALSE(id.isNull());
    EXPECT_EQ(id->mask(), IPAddressMask());
    EXPECT_TRUE(id->sender().isNull());
    EXPECT_TRUE(id->recipient().isNull());
    EXPECT_EQ(tuple("/64", "", "a@b")->mask().cidr(), 64U);
}

TEST(TupleId, KeepsHostBitsOfItsMask) {
    EXPECT_EQ(tuple("192.0.2.77/24", "", "")->mask().asString(), "192.0.2.77/24");
    EXPECT_EQ(tuple("2001:db8::1/64", "", "")->mask().asString(), "2001:db8::1/64");
}

TEST(TupleId, CopiesShareOneIdentity) {
    TupleId const id = tuple(network, "a@b", "c@d");
    TupleId copy(id);
    EXPECT_EQ(copy.operator->(), id.operator->());
    TupleId assigned;
    assigned = copy;
    copy = TupleId();
    EXPECT_TRUE(copy.isNull());
    EXPECT_EQ(assigned.operator->(), id.operator->());
    EXPECT_EQ(assigned->senderAddress(), "a@b");
}

TEST(TupleId, TakesTheLongestMailboxAndRefusesALongerOne) {
    std::string const longest(EmailAddress::maxLength, 'x');
    EXPECT_EQ(tuple(network, longest, longest)->recipientAddress(), longest);
    for (bool const sender : {true, false}) {
        try {
            tuple(network, sender ? longest + 'x' : "a@b", sender ? "a@b" : longest + 'x');
            ADD_FAILURE() << "taken";
        } catch (Exception const& refused) {
            EXPECT_THAT(refused.asString(), HasSubstr("an address of 1025 octets, at most 1024 expected"));
        }
    }
}

TEST(TupleId, EmptyHandleIsLessThanAnyOtherAndEqualToItself) {
    TupleId const smallest((IPAddressMask()), EmailAddress(), EmailAddress());
    expectLess(TupleId(), smallest);
    expectLess(TupleId(), tuple(network, "a@b", "c@d"));
    expectEqual(TupleId(), TupleId());
}

TEST(TupleId, NetworkComesFirstThenSenderThenRecipient) {
    expectLess(tuple("192.0.2.0/24", "z@z", "z@z"), tuple("192.0.3.0/24", "a@a", "a@a"));
    expectLess(tuple(network, "a@a", "z@z"), tuple(network, "b@a", "a@a"));
    expectLess(tuple(network, "a@a", "a@a"), tuple(network, "a@a", "b@a"));
    expectEqual(tuple(network, "a@a", "b@b"), tuple(network, "a@a", "b@b"));
}

TEST(TupleId, NetworksAreOrderedByFamilyAddressAndLength) {
    expectLess(tuple("", "", ""), tuple("/64", "", ""));
    expectLess(tuple("/128", "z@z", ""), tuple("0.0.0.0/0", "", ""));
    expectLess(tuple("255.255.255.255/32", "z@z", ""), tuple("::/0", "", ""));
    expectLess(tuple("192.0.2.0/23", "z@z", ""), tuple("192.0.2.0/24", "", ""));
    expectLess(tuple("192.0.2.0/24", "z@z", ""), tuple("192.0.2.0/25", "", ""));
    expectLess(tuple("192.0.2.0/32", "z@z", ""), tuple("192.0.2.1/24", "", ""));
    expectLess(tuple("2001:db8::/64", "z@z", ""), tuple("2001:db8::/65", "", ""));
    expectLess(tuple("2001:db8::/128", "z@z", ""), tuple("2001:db8::1/64", "", ""));
}

TEST(TupleId, LetterCaseOfARecipientMakesAnotherTuple) {
    expectLess(tuple(network, "a@b", "John@example.org"), tuple(network, "a@b", "john@example.org"));
}

TEST(TupleId, AddressesAreComparedAsUnsignedBytesAndAPrefixIsLess) {
    expectLess(tuple(network, "z@example.org", ""), tuple(network, "\xc3\xa9@example.org", ""));
    expectLess(tuple(network, "a@b", "z"), tuple(network, "a@b.c", "a"));
    expectLess(tuple(network, "", "z"), tuple(network, "\x01", "a"));
    expectLess(tuple(network, "a@b", "c"), tuple(network, "a@b", "c "));
}

TEST(TupleId, EndOfASenderIsNotMistakenForItsRecipient) {
    expectLess(tuple(network, "a", "bc"), tuple(network, "ab", "c"));
    EXPECT_FALSE(tuple(network, "ab", "c") == tuple(network, "a", "bc"));
}

// The order that the identity packs into bytes, spelled with the values' own operators.
struct Reference {
    IPAddressMask mask;
    EmailAddress sender, recipient;

    bool operator<(Reference const& other) const {
        return std::tie(mask, sender, recipient) < std::tie(other.mask, other.sender, other.recipient);
    }
    bool operator==(Reference const& other) const {
        return mask == other.mask && sender == other.sender && recipient == other.recipient;
    }
};

struct Pair {
    Reference reference;
    TupleId id;
};

std::vector<Pair> randomPairs(RandomSource& random, std::size_t count) {
    std::vector<Pair> pairs;
    for (std::size_t n = 0; n < count; ++n) {
        Reference const reference{randomNetwork(random), mailbox(randomAddress(random)),
                                  mailbox(randomAddress(random))};
        pairs.push_back({reference, TupleId(reference.mask, reference.sender, reference.recipient)});
    }
    return pairs;
}

TEST(TupleId, OrderAndEqualityAreThoseOfItsParts) {
    RandomSource random;
    std::vector<Pair> const pairs = randomPairs(random, 1500);
    for (Pair const& a : pairs) {
        for (Pair const& b : pairs) {
            ASSERT_EQ(a.id < b.id, a.reference < b.reference)
                << a.reference.mask.asString() << " and " << b.reference.mask.asString();
            ASSERT_EQ(a.id == b.id, a.reference == b.reference)
                << a.reference.mask.asString() << " and " << b.reference.mask.asString();
        }
    }
}

TEST(TupleId, OrderingBytesNeverContradictTheOrder) {
    RandomSource random;
    std::vector<Pair> pairs = randomPairs(random, 100000);
    pairs.push_back({{}, TupleId()});
    std::sort(pairs.begin(), pairs.end(), [](Pair const& a, Pair const& b) { return a.id < b.id; });
    for (std::size_t n = 1; n < pairs.size(); ++n) {
        ASSERT_LE(KeyOrder<TupleId>::prefix(pairs[n - 1].id), KeyOrder<TupleId>::prefix(pairs[n].id))
            << pairs[n - 1].reference.mask.asString() << " and " << pairs[n].reference.mask.asString();
    }
}

TEST(TupleId, PartsStandForTheIdentityMadeOfThem) {
    RandomSource random;
    std::vector<Pair> const pairs = randomPairs(random, 300);
    for (Pair const& a : pairs) {
        TupleParts const parts(a.reference.mask, a.reference.sender, a.reference.recipient);
        EXPECT_EQ(KeyOrder<TupleId>::compare(a.id, parts), 0);
        EXPECT_EQ(TupleId(parts), a.id);
        EXPECT_LT(KeyOrder<TupleId>::compare(TupleId(), parts), 0) << "an empty handle comes first";
        for (Pair const& b : pairs) {
            expectPartsStandForIt(a.id, b.id);
        }
    }
}

TEST(TupleId, OrderingBytesTellTheSendersOfAUsualNetworkApart) {
    EXPECT_LT(KeyOrder<TupleId>::prefix(tuple("192.0.2.0/24", "news1@example.net", "")),
              KeyOrder<TupleId>::prefix(tuple("192.0.2.0/24", "news2@example.net", "")));
    EXPECT_LT(KeyOrder<TupleId>::prefix(tuple("2001:db8::/64", "news1@example.net", "")),
              KeyOrder<TupleId>::prefix(tuple("2001:db8::/64", "news2@example.net", "")));
}

} // namespace
} // namespace Vellum::GreyList
