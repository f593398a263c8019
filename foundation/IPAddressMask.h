// A network: an address and a prefix length.
#pragma once

#include "foundation/IPAddress.h"

namespace Vellum {

// The default mask (null address, length 0) sets no condition: it matches every address. A null address with a length
// is the network of the senders whose address is unknown; it matches the null address only.
class IPAddressMask {
  public:
    IPAddressMask() = default;
    // Clears nothing: the caller gives the network address (applyMask makes one). Throws Exception when the length
    // exceeds 32 (IPv4) or 128 (others).
    IPAddressMask(ip_addr_t const& address, unsigned int prefixLength);
    // "192.0.2.0/24", "2001:db8::/64"; a bare address means its full length; "" is the default mask, "/64" a null
    // address with a length. Host bits are kept as written, so that what asString() wrote reads back equal. Throws
    // Exception naming the text.
    explicit IPAddressMask(std::string const& text);

    // Clears the bits of `address` beyond prefixLength; a length at or above the address's own changes nothing.
    static void applyMask(IPAddress& address, unsigned int prefixLength);

    IPAddress const& prefix() const { return m_prefix; }
    unsigned int cidr() const { return m_cidr; }
    // Whether `address` has the same family and the same first cidr() bits. An IPv4-mapped address is an IPv6 address
    // here. The default mask matches everything.
    bool matches(IPAddress const& address) const;
    // "address/length"; "/length" when the address is null, "" for the default mask. At most 43 characters.
    std::string asString() const;

    bool operator==(IPAddressMask const& other) const;
    // Total order: prefix(), then cidr().
    bool operator<(IPAddressMask const& other) const;

  private:
    IPAddress m_prefix;
    std::uint8_t m_cidr = 0;
};

} // namespace Vellum
