// An IPv4 or IPv6 address, or null.
#pragma once

#include <array>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <string>

namespace Vellum {

// The raw address as it travels in PDUs: 20 bytes, host byte order. Offset, size, field:
//   0    4  family   0 null, 4 IPv4, 6 IPv6
//   4   16  bytes    network order; IPv4 uses the first four, the rest is zero
struct ip_addr_t {
    std::uint32_t family;
    std::uint8_t bytes[16];
};
static_assert(sizeof(ip_addr_t) == 20 && offsetof(ip_addr_t, bytes) == 4);

// A value of 17 bytes, so that masks and greylist identities stay small.
class IPAddress {
  public:
    IPAddress() = default;           // null
    IPAddress(ip_addr_t const& raw); // throws Exception when the family is none of 0, 4, 6
    // Dotted quad or RFC 4291 text, nothing around it (no brackets, no zone). Throws Exception naming the text.
    explicit IPAddress(std::string const& text);
    // An IPv4 address from 32 bits: network order (as in_addr.s_addr) when the flag is true, else host order.
    IPAddress(unsigned int value, bool networkOrder);

    bool isNull() const { return m_family == 0; }
    bool isV4() const { return m_family == 4; }
    bool isV6() const { return m_family == 6; }
    static bool isV4Mapped(IPAddress const& address); // ::ffff:0:0/96
    // ::/96 carrying an IPv4 address; :: and ::1 are ordinary addresses, not compatible ones.
    static bool isV4Compatible(IPAddress const& address);

    ip_addr_t asIpAddr() const;
    // Dotted quad, or RFC 5952 text; null is "". The flag is accepted and changes nothing.
    std::string asString(bool = true) const;
    // Network-order bytes: 4 of IPv4, 16 of IPv6 are meaningful.
    std::array<std::uint8_t, 16> const& bytes() const { return m_bytes; }

    // Total order: null, then IPv4, then IPv6, each by its bytes. Listings come in this order.
    bool operator<(IPAddress const& other) const;
    bool operator==(IPAddress const& other) const;

  private:
    friend class IPAddressMask;
    std::uint8_t m_family = 0; // 0, 4 or 6
    std::array<std::uint8_t, 16> m_bytes{};
};

} // namespace Vellum
