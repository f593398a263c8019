#include "greylist/TupleId.h"

#include "foundation/Exception.h"

#include <algorithm>
#include <cstring>

namespace Vellum::GreyList {

TupleParts::TupleParts(IPAddressMask const& mask, std::string_view from, std::string_view to)
    : family(mask.prefix().isV4() ? 4 : (mask.prefix().isV6() ? 6 : 0)), cidr(static_cast<std::uint8_t>(mask.cidr())),
      network(mask.prefix().bytes().data()), sender(from), recipient(to) {}

int TupleParts::compare(TupleParts const& other) const {
    if (family != other.family) {
        return int(family) - int(other.family);
    }
    if (int const order = std::memcmp(network, other.network, networkLength()); order != 0) {
        return order;
    }
    if (cidr != other.cidr) {
        return int(cidr) - int(other.cidr);
    }
    if (int const order = sender.compare(other.sender); order != 0) {
        return order;
    }
    return recipient.compare(other.recipient);
}

// Family, address, prefix length, sender, 0, recipient. Mailboxes hold no NUL, so the 0 ends a sender before any longer
// one. What networks have in common is kept short, because sixteen bytes are all there is: the host part and length of
// the usual networks (/24 and /64) are one byte together, which orders like the bytes it stands for.
OrderPrefix TupleParts::orderPrefix() const {
    OrderPrefixWriter writer;
    writer.byte(static_cast<std::uint8_t>(family + 1)); // above an empty handle
    unsigned int const length = networkLength();
    if (length != 0) {
        static constexpr std::uint8_t zero[8] = {};
        unsigned int const networkBytes = length == 4 ? 3 : 8;
        unsigned int const usual = networkBytes * 8;
        bool const hostIsZero = std::memcmp(network + networkBytes, zero, length - networkBytes) == 0;
        writer.bytes(network, networkBytes);
        writer.byte(!hostIsZero || cidr > usual ? 2 : (cidr == usual ? 1 : 0));
        if (!hostIsZero || cidr != usual) {
            writer.bytes(network + networkBytes, length - networkBytes);
            writer.byte(cidr);
        }
    } else {
        writer.byte(cidr);
    }
    writer.bytes(sender.data(), sender.size());
    writer.byte(0);
    writer.bytes(recipient.data(), recipient.size());
    return writer.prefix();
}

_TupleId* _TupleId::make(TupleParts const& parts) {
    std::size_t const longest = std::max(parts.sender.size(), parts.recipient.size());
    if (longest > EmailAddress::maxLength) {
        throw Exception("TupleId", Exception::failure, "TupleId")
            .stringParameter("an address of " + std::to_string(longest) + " octets, at most " +
                             std::to_string(EmailAddress::maxLength) + " expected");
    }
    unsigned int const bytes = parts.networkLength();
    auto* id = new (bytes + parts.sender.size() + parts.recipient.size()) _TupleId;
    id->m_family = parts.family;
    id->m_cidr = parts.cidr;
    id->m_senderLength = static_cast<std::uint16_t>(parts.sender.size());
    id->m_recipientLength = static_cast<std::uint16_t>(parts.recipient.size());
    auto* out = std::copy_n(parts.network, bytes, reinterpret_cast<std::uint8_t*>(id + 1));
    out = std::copy(parts.sender.begin(), parts.sender.end(), out);
    std::copy(parts.recipient.begin(), parts.recipient.end(), out);
    return id;
}

IPAddressMask _TupleId::mask() const {
    TupleParts const all = parts();
    ip_addr_t network{all.family, {}};
    std::copy_n(all.network, all.networkLength(), network.bytes);
    return {network, all.cidr};
}

EmailAddress _TupleId::sender() const {
    return EmailAddress::fromAddress(senderAddress());
}

EmailAddress _TupleId::recipient() const {
    return EmailAddress::fromAddress(recipientAddress());
}

// boost::shared_ptr deletes the identity when its control block finds no memory.
TupleId::TupleId(TupleParts const& parts) : m_impl(_TupleId::make(parts)) {}

bool TupleId::operator<(TupleId const& other) const {
    return KeyOrder<TupleId>::compare(*this, other) < 0;
}

bool TupleId::operator==(TupleId const& other) const {
    return KeyOrder<TupleId>::compare(*this, other) == 0;
}

} // namespace Vellum::GreyList
