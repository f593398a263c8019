#include "greylist/DynamicExemptId.h"

#include "RandomIdentities.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

namespace Vellum::GreyList {
namespace {

void expectLess(DynamicExemptId const& less, DynamicExemptId const& more) {
    EXPECT_TRUE(less < more);
    EXPECT_FALSE(more < less);
    EXPECT_FALSE(less == more);
    EXPECT_LE(KeyOrder<DynamicExemptId>::prefix(less), KeyOrder<DynamicExemptId>::prefix(more));
}

TEST(DynamicExemptId, KeepsItsParts) {
    DynamicExemptId const id = exemption("2001:db8::/64", "Example.ORG");
    EXPECT_EQ(id->mask(), IPAddressMask("2001:db8::/64"));
    EXPECT_EQ(id->domain(), "Example.ORG");
    DynamicExemptId const copy(id);
    EXPECT_EQ(copy.operator->(), id.operator->());
}

TEST(DynamicExemptId, EmptyHandleIsLessThanAnyOtherAndEqualToItself) {
    expectLess(DynamicExemptId(), exemption("", ""));
    expectLess(DynamicExemptId(), exemption("192.0.2.0/24", "example.org"));
    EXPECT_TRUE(DynamicExemptId() == DynamicExemptId());
    EXPECT_FALSE(DynamicExemptId() < DynamicExemptId());
}

TEST(DynamicExemptId, DomainComesBeforeNetwork) {
    expectLess(exemption("198.51.100.0/24", "a.example"), exemption("192.0.2.0/24", "b.example"));
    expectLess(exemption("192.0.2.0/24", "a.example"), exemption("198.51.100.0/24", "a.example"));
    EXPECT_TRUE(exemption("192.0.2.0/24", "a.example") == exemption("192.0.2.0/24", "a.example"));
    EXPECT_FALSE(exemption("192.0.2.0/24", "a.example") == exemption("192.0.2.0/25", "a.example"));
}

TEST(DynamicExemptId, LetterCaseOfADomainMakesAnotherExemption) {
    expectLess(exemption("192.0.2.0/24", "Example.org"), exemption("192.0.2.0/24", "example.org"));
}

TEST(DynamicExemptId, DomainsAreComparedAsUnsignedBytesAndAPrefixIsLess) {
    expectLess(exemption("192.0.2.0/24", "z"), exemption("192.0.2.0/24", "\xff"));
    expectLess(exemption("198.51.100.0/24", "example"), exemption("192.0.2.0/24", "example "));
    expectLess(exemption("198.51.100.0/24", "a"), exemption("192.0.2.0/24", std::string("a\0", 2)));
}

TEST(DynamicExemptId, OrderAndOrderingBytesAreThoseOfItsParts) {
    RandomSource random;
    struct Pair {
        std::string domain;
        IPAddressMask mask;
        DynamicExemptId id;
    };
    std::vector<Pair> pairs;
    for (int n = 0; n < 1500; ++n) {
        std::string const domain = randomDomain(random);
        IPAddressMask const mask = randomNetwork(random);
        pairs.push_back({domain, mask, DynamicExemptId(mask, domain)});
    }
    for (Pair const& a : pairs) {
        for (Pair const& b : pairs) {
            bool const less = a.domain != b.domain ? a.domain < b.domain : a.mask < b.mask;
            ASSERT_EQ(a.id < b.id, less) << a.domain << ", " << b.domain;
            ASSERT_EQ(a.id == b.id, a.domain == b.domain && a.mask == b.mask) << a.domain << ", " << b.domain;
            DynamicExemptParts const parts{b.mask, b.domain};
            ASSERT_EQ(KeyOrder<DynamicExemptId>::prefix(parts), KeyOrder<DynamicExemptId>::prefix(b.id)) << b.domain;
            ASSERT_EQ(KeyOrder<DynamicExemptId>::compare(a.id, parts) < 0, a.id < b.id) << a.domain << ", " << b.domain;
            ASSERT_EQ(KeyOrder<DynamicExemptId>::compare(a.id, parts) == 0, a.id == b.id)
                << a.domain << ", " << b.domain;
            if (less) {
                ASSERT_LE(KeyOrder<DynamicExemptId>::prefix(a.id), KeyOrder<DynamicExemptId>::prefix(b.id))
                    << a.domain << ", " << b.domain;
            }
        }
    }
}

} // namespace
} // namespace Vellum::GreyList
