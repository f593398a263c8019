#include "foundation/IPAddressMask.h"

#include "foundation/Escape.h"
#include "foundation/Exception.h"

#include <charconv>
#include <cstring>
#include <tuple>

namespace Vellum {
namespace {

unsigned int fullLength(IPAddress const& address) {
    return address.isV4() ? 32 : 128; // null included: the network of unknown senders has a length, too
}

// The first `length` bits of a byte, 0 to 8.
std::uint8_t leadingBits(unsigned int length) {
    return static_cast<std::uint8_t>(0xff00U >> length);
}

Exception invalidMask(std::string const& problem) {
    return Exception("IPAddressMask::IPAddressMask", Exception::failure, "IPAddressMask").stringParameter(problem);
}

Exception invalidText(std::string const& text, std::string const& problem) {
    return invalidMask('"' + escapeControls(text.substr(0, 64)) + "\" is not a network: " + problem);
}

IPAddress parsePrefix(std::string const& text, std::string const& address) {
    try {
        return IPAddress(address);
    } catch (Exception const& caught) {
        throw invalidText(text, "no IP address before the slash").cause(caught);
    }
}

unsigned int parseLength(std::string const& text, std::string_view digits) {
    unsigned int length = 0;
    char const* const end = digits.data() + digits.size();
    auto const [last, error] = std::from_chars(digits.data(), end, length);
    bool const leadingZero = digits.size() > 1 && digits.front() == '0';
    if (error != std::errc() || last != end || leadingZero) {
        throw invalidText(text, "what follows the slash is not a prefix length");
    }
    return length;
}

} // namespace

IPAddressMask::IPAddressMask(ip_addr_t const& address, unsigned int prefixLength) : m_prefix(address) {
    if (prefixLength > fullLength(m_prefix)) {
        std::string const of = m_prefix.isNull() ? "no address" : m_prefix.asString();
        throw invalidMask("prefix length " + std::to_string(prefixLength) + " is too long for " + of);
    }
    m_cidr = static_cast<std::uint8_t>(prefixLength);
}

IPAddressMask::IPAddressMask(std::string const& text) {
    if (text.empty()) {
        return;
    }
    std::size_t const slash = text.find('/');
    if (slash != 0) {
        m_prefix = parsePrefix(text, text.substr(0, slash));
    }
    unsigned int const longest = fullLength(m_prefix);
    unsigned int const length =
        slash == std::string::npos ? longest : parseLength(text, std::string_view(text).substr(slash + 1));
    if (length > longest) {
        throw invalidText(text, "the prefix length is above " + std::to_string(longest));
    }
    if (m_prefix.isNull() && length == 0) {
        throw invalidText(text, "neither an address nor a prefix length");
    }
    m_cidr = static_cast<std::uint8_t>(length);
}

void IPAddressMask::applyMask(IPAddress& address, unsigned int prefixLength) {
    unsigned int const longest = fullLength(address);
    for (unsigned int bit = 0; bit < longest; bit += 8) {
        if (bit + 8 > prefixLength) {
            address.m_bytes[bit / 8] &= leadingBits(prefixLength > bit ? prefixLength - bit : 0);
        }
    }
}

bool IPAddressMask::matches(IPAddress const& address) const {
    if (m_prefix.isNull()) {
        return m_cidr == 0 || address.isNull();
    }
    if (address.m_family != m_prefix.m_family) {
        return false;
    }
    unsigned int const wholeBytes = m_cidr / 8U;
    if (std::memcmp(address.m_bytes.data(), m_prefix.m_bytes.data(), wholeBytes) != 0) {
        return false;
    }
    unsigned int const bitsLeft = m_cidr % 8U;
    return bitsLeft == 0 || ((address.m_bytes[wholeBytes] ^ m_prefix.m_bytes[wholeBytes]) & leadingBits(bitsLeft)) == 0;
}

std::string IPAddressMask::asString() const {
    bool const isDefault = m_prefix.isNull() && m_cidr == 0;
    return isDefault ? std::string() : m_prefix.asString() + '/' + std::to_string(m_cidr);
}

bool IPAddressMask::operator==(IPAddressMask const& other) const {
    return m_prefix == other.m_prefix && m_cidr == other.m_cidr;
}

bool IPAddressMask::operator<(IPAddressMask const& other) const {
    return std::tie(m_prefix, m_cidr) < std::tie(other.m_prefix, other.m_cidr);
}

} // namespace Vellum
