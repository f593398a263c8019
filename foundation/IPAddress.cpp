#include "foundation/IPAddress.h"

#include "foundation/Escape.h"
#include "foundation/Exception.h"

#include <algorithm>
#include <arpa/inet.h>
#include <charconv>
#include <cstring>
#include <tuple>

namespace Vellum {
namespace {

constexpr std::uint8_t v4 = 4;
constexpr std::uint8_t v6 = 6;
constexpr int groupCount = 8;

void appendNumber(std::string& out, unsigned int value, int base) {
    char digits[8];
    char* const end = std::to_chars(digits, digits + sizeof digits, value, base).ptr;
    out.append(digits, end);
}

void appendQuad(std::string& out, std::uint8_t const* bytes) {
    for (int i = 0; i < 4; ++i) {
        if (i > 0) {
            out += '.';
        }
        appendNumber(out, bytes[i], 10);
    }
}

// The run of zero groups that "::" replaces: the longest, the first of equals, never a single group.
struct Run {
    int first = -1;
    int length = 1;
};

Run longestZeroRun(std::array<unsigned int, groupCount> const& groups) {
    Run best;
    for (int first = 0; first < groupCount; ++first) {
        int length = 0;
        while (first + length < groupCount && groups[first + length] == 0) {
            ++length;
        }
        if (length > best.length) {
            best = {first, length};
        }
        first += length;
    }
    return best;
}

void appendV6(std::string& out, std::uint8_t const* bytes) {
    std::array<unsigned int, groupCount> groups{};
    for (unsigned int& group : groups) {
        group = bytes[0] * 256U + bytes[1];
        bytes += 2;
    }
    Run const hidden = longestZeroRun(groups);
    for (int i = 0; i < groupCount; ++i) {
        if (i == hidden.first) {
            out += "::";
            i += hidden.length - 1;
            continue;
        }
        if (i > 0 && out.back() != ':') {
            out += ':';
        }
        appendNumber(out, groups[i], 16);
    }
}

} // namespace

IPAddress::IPAddress(ip_addr_t const& raw) {
    if (raw.family != 0 && raw.family != v4 && raw.family != v6) {
        throw Exception("IPAddress::IPAddress", Exception::failure, "IPAddress")
            .stringParameter("address family " + std::to_string(raw.family) + " is none of 0, 4, 6");
    }
    m_family = static_cast<std::uint8_t>(raw.family);
    // Bytes that the family does not use may hold anything; zeroed here, equality can compare all of them.
    std::size_t const used = m_family == v4 ? 4 : m_family == v6 ? 16 : 0;
    std::copy_n(raw.bytes, used, m_bytes.begin());
}

IPAddress::IPAddress(std::string const& text) {
    // inet_pton takes what it reads up to a NUL, and neither zones, brackets, blanks nor octets with leading zeros.
    bool const oneString = text.find('\0') == std::string::npos;
    if (oneString && inet_pton(AF_INET, text.c_str(), m_bytes.data()) == 1) {
        m_family = v4;
    } else if (oneString && inet_pton(AF_INET6, text.c_str(), m_bytes.data()) == 1) {
        m_family = v6;
    } else {
        throw Exception("IPAddress::IPAddress", Exception::failure, "IPAddress")
            .stringParameter('"' + escapeControls(text.substr(0, 64)) + "\" is not an IP address");
    }
}

IPAddress::IPAddress(unsigned int value, bool networkOrder) : m_family(v4) {
    std::uint32_t const inNetworkOrder = networkOrder ? value : htonl(value);
    std::memcpy(m_bytes.data(), &inNetworkOrder, sizeof inNetworkOrder);
}

bool IPAddress::isV4Mapped(IPAddress const& address) {
    auto const& bytes = address.m_bytes;
    return address.isV6() && std::all_of(bytes.begin(), bytes.begin() + 10, [](auto b) { return b == 0; }) &&
           bytes[10] == 0xff && bytes[11] == 0xff;
}

bool IPAddress::isV4Compatible(IPAddress const& address) {
    auto const& bytes = address.m_bytes;
    bool const inPrefix = std::all_of(bytes.begin(), bytes.begin() + 12, [](auto b) { return b == 0; });
    bool const unspecifiedOrLoopback = bytes[12] == 0 && bytes[13] == 0 && bytes[14] == 0 && bytes[15] <= 1;
    return address.isV6() && inPrefix && !unspecifiedOrLoopback;
}

ip_addr_t IPAddress::asIpAddr() const {
    ip_addr_t raw{m_family, {}};
    std::copy(m_bytes.begin(), m_bytes.end(), raw.bytes);
    return raw;
}

std::string IPAddress::asString(bool) const {
    std::string out;
    if (isV4()) {
        appendQuad(out, m_bytes.data());
    } else if (isV4Mapped(*this)) {
        out = "::ffff:";
        appendQuad(out, m_bytes.data() + 12);
    } else if (isV6()) {
        appendV6(out, m_bytes.data());
    }
    return out;
}

bool IPAddress::operator<(IPAddress const& other) const {
    return std::tie(m_family, m_bytes) < std::tie(other.m_family, other.m_bytes);
}

bool IPAddress::operator==(IPAddress const& other) const {
    return m_family == other.m_family && m_bytes == other.m_bytes;
}

} // namespace Vellum
