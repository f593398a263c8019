#include "greylist/TupleId.h"

#include "foundation/Exception.h"

#include <cstring>

namespace Vellum::GreyList {

_TupleId* _TupleId::make(IPAddressMask const& mask, EmailAddress const& sender, EmailAddress const& recipient) {
    std::string const& from = sender.address();
    std::string const& to = recipient.address();
    if (from.size() > EmailAddress::maxLength || to.size() > EmailAddress::maxLength) {
        throw Exception("TupleId", Exception::failure, "TupleId")
            .stringParameter("an address of " + std::to_string(std::max(from.size(), to.size())) + " octets, at most " +
                             std::to_string(EmailAddress::maxLength) + " expected");
    }
    ip_addr_t const network = mask.prefix().asIpAddr();
    unsigned int const bytes = addressLength(network.family);
    auto* id = new (bytes + from.size() + to.size()) _TupleId;
    id->m_family = static_cast<std::uint8_t>(network.family);
    id->m_cidr = static_cast<std::uint8_t>(mask.cidr());
    id->m_senderLength = static_cast<std::uint16_t>(from.size());
    id->m_recipientLength = static_cast<std::uint16_t>(to.size());
    auto* out = reinterpret_cast<char*>(id + 1);
    std::memcpy(out, network.bytes, bytes);
    std::memcpy(out + bytes, from.data(), from.size());
    std::memcpy(out + bytes + from.size(), to.data(), to.size());
    return id;
}

IPAddressMask _TupleId::mask() const {
    ip_addr_t network{};
    network.family = m_family;
    std::memcpy(network.bytes, tail(), addressLength(m_family));
    return {network, m_cidr};
}

EmailAddress _TupleId::sender() const {
    return EmailAddress::fromAddress(senderAddress());
}

EmailAddress _TupleId::recipient() const {
    return EmailAddress::fromAddress(recipientAddress());
}

int _TupleId::compare(_TupleId const& other) const {
    if (m_family != other.m_family) {
        return int(m_family) - int(other.m_family);
    }
    if (int const order = std::memcmp(tail(), other.tail(), addressLength(m_family)); order != 0) {
        return order;
    }
    if (m_cidr != other.m_cidr) {
        return int(m_cidr) - int(other.m_cidr);
    }
    if (int const order = senderAddress().compare(other.senderAddress()); order != 0) {
        return order;
    }
    return recipientAddress().compare(other.recipientAddress());
}

// Family, address, prefix length, sender, 0, recipient. Mailboxes hold no NUL, so the 0 ends a sender before any longer
// one. What networks have in common is kept short, because sixteen bytes are all there is: the host part and length of
// the usual networks (/24 and /64) are one byte together, which orders like the bytes it stands for.
OrderPrefix _TupleId::orderPrefix() const {
    OrderPrefixWriter writer;
    writer.byte(static_cast<std::uint8_t>(m_family + 1)); // above an empty handle
    unsigned int const length = addressLength(m_family);
    if (length != 0) {
        static constexpr std::uint8_t zero[8] = {};
        unsigned int const networkBytes = length == 4 ? 3 : 8;
        unsigned int const usual = networkBytes * 8;
        bool const hostIsZero = std::memcmp(tail() + networkBytes, zero, length - networkBytes) == 0;
        writer.bytes(tail(), networkBytes);
        writer.byte(!hostIsZero || m_cidr > usual ? 2 : (m_cidr == usual ? 1 : 0));
        if (!hostIsZero || m_cidr != usual) {
            writer.bytes(tail() + networkBytes, length - networkBytes);
            writer.byte(m_cidr);
        }
    } else {
        writer.byte(m_cidr);
    }
    writer.bytes(text(), m_senderLength);
    writer.byte(0);
    writer.bytes(text() + m_senderLength, m_recipientLength);
    return writer.prefix();
}

// boost::shared_ptr deletes the identity when its control block finds no memory.
TupleId::TupleId(IPAddressMask const& mask, EmailAddress const& sender, EmailAddress const& recipient)
    : m_impl(_TupleId::make(mask, sender, recipient)) {}

bool TupleId::operator<(TupleId const& other) const {
    return KeyOrder<TupleId>::compare(*this, other) < 0;
}

bool TupleId::operator==(TupleId const& other) const {
    return KeyOrder<TupleId>::compare(*this, other) == 0;
}

} // namespace Vellum::GreyList
