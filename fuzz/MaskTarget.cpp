// A network: as text, in a line of its own, and an address in the next line.
#include "foundation/IPAddressMask.h"
#include "fuzz/FuzzTarget.h"
#include "fuzz/Input.h"
#include "fuzz/Parsed.h"

namespace Vellum::Fuzz {
namespace {

// Bit by bit.
bool holds(IPAddressMask const& mask, IPAddress const& address) {
    if (mask == IPAddressMask()) {
        return true;
    }
    if (mask.prefix().isV4() != address.isV4() || mask.prefix().isV6() != address.isV6()) {
        return false;
    }
    for (unsigned int bit = 0; !address.isNull() && bit < mask.cidr(); ++bit) {
        unsigned int const differing = mask.prefix().bytes()[bit / 8] ^ address.bytes()[bit / 8];
        if ((differing >> (7 - bit % 8) & 1U) != 0) {
            return false;
        }
    }
    return true;
}

void run(std::string_view input) {
    Input lines(input);
    auto const mask = parsed<IPAddressMask>(lines.line());
    if (!mask) {
        return;
    }
    constexpr std::size_t longest = 43;
    std::string const text = mask->asString();
    require(text.size() <= longest, "a mask's text has a greatest length");
    require(IPAddressMask(text) == *mask, "a mask's text reads back");
    require(!(*mask < *mask), "no mask is before itself");
    require(mask->matches(mask->prefix()), "a mask holds the address that it was written with");

    IPAddress base = mask->prefix();
    IPAddressMask::applyMask(base, mask->cidr());
    IPAddress again = base;
    IPAddressMask::applyMask(again, mask->cidr());
    require(again == base, "a network address is one for good");
    require(mask->matches(base), "a mask holds its network address");

    if (auto const address = parsed<IPAddress>(lines.line())) {
        require(mask->matches(*address) == holds(*mask, *address), "a mask holds what agrees in its bits");
    }
}

Target const target("mask", run);

} // namespace
} // namespace Vellum::Fuzz
