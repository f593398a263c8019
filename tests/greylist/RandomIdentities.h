// Identities that are hard to order: parts that agree, are prefixes of each other, or differ in their last byte only.
#pragma once

#include "tests/support/GreylistIdentities.h"
#include "tests/support/RandomSource.h"

#include <string>
#include <vector>

namespace Vellum::GreyList {

// Networks of every family, with and without host bits, of usual and unusual lengths.
inline IPAddressMask randomNetwork(RandomSource& random) {
    static std::vector<unsigned int> const v4Lengths{0, 8, 23, 24, 25, 31, 32};
    static std::vector<unsigned int> const v6Lengths{0, 32, 63, 64, 65, 96, 120, 128};
    static std::vector<std::uint8_t> const bytes{0, 1, 2, 0x7f, 0x80, 0xff};
    ip_addr_t raw{};
    raw.family = random.of(std::vector<std::uint32_t>{0, 4, 4, 4, 6, 6, 6});
    if (raw.family == 0) {
        return {raw, static_cast<unsigned int>(random.of(v6Lengths))};
    }
    std::size_t const length = raw.family == 4 ? 4 : 16;
    std::size_t const hostBegins = raw.family == 4 ? 3 : 8;
    bool const hostBits = random.oneIn(3);
    for (std::size_t at = 0; at < length; ++at) {
        // Mostly equal bytes, so that whole networks meet again.
        raw.bytes[at] = at < hostBegins ? (random.oneIn(4) ? random.of(bytes) : 10) : 0;
    }
    if (hostBits) {
        raw.bytes[hostBegins + random.below(length - hostBegins)] = random.of(bytes);
    }
    return {raw, random.of(raw.family == 4 ? v4Lengths : v6Lengths)};
}

inline std::string randomAddress(RandomSource& random) {
    static std::vector<std::string> const pieces{"a", "A", "b", "@", ".", "example", "\xc3\xa9", "\xff", "\x01", " "};
    std::string address;
    for (std::size_t count = random.below(6); count > 0; --count) {
        address += random.of(pieces);
    }
    return random.oneIn(20) ? address + std::string(300, 'l') : address;
}

// Any bytes, NUL included.
inline std::string randomDomain(RandomSource& random) {
    static std::vector<std::string> const pieces{"a", "A", "b", ".", "example", "\xff", std::string(1, '\0'), "'"};
    std::string domain = random.oneIn(3) ? "a.long.domain.of.example" : "";
    for (std::size_t count = random.below(5); count > 0; --count) {
        domain += random.of(pieces);
    }
    return domain;
}

} // namespace Vellum::GreyList
