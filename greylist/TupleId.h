// The identity that greylisting keys on: sending network, envelope sender, envelope recipient.
#pragma once

#include "foundation/EmailAddress.h"
#include "foundation/IPAddressMask.h"
#include "include2/KeyOrder.h"

#include <boost/shared_ptr.hpp>

#include <cstdint>
#include <string_view>

namespace Vellum::GreyList {

// The parts of a tuple, in memory of whoever made it and valid as long as that: what identities are made from, compared
// by and searched with.
struct TupleParts {
    // The addresses are EmailAddress::address(); "" is null.
    TupleParts(IPAddressMask const& mask, std::string_view from, std::string_view to);
    TupleParts(IPAddressMask const& mask, EmailAddress const& from, EmailAddress const& to)
        : TupleParts(mask, std::string_view(from.address()), std::string_view(to.address())) {}

    // Below 0, 0 or above 0 in the order of mask, sender, recipient.
    int compare(TupleParts const& other) const;
    OrderPrefix orderPrefix() const;
    unsigned int networkLength() const { return family == 4 ? 4 : (family == 6 ? 16 : 0); } // bytes of `network`

    std::uint8_t family;         // 0 null, 4, 6
    std::uint8_t cidr;           // prefix length
    std::uint8_t const* network; // address bytes
    std::string_view sender;
    std::string_view recipient;

  private:
    friend class _TupleId;
    TupleParts(std::uint8_t familyOf, std::uint8_t cidrOf, std::uint8_t const* bytes) // without addresses
        : family(familyOf), cidr(cidrOf), network(bytes) {}
};

// One tuple, immutable. A million of them are kept, so network and both addresses are packed behind the object in one
// block of memory: family, prefix length and lengths in the object, then the address bytes (4 or 16), the sender and
// the recipient, without separators.
class _TupleId {
  public:
    // Made only in blocks with room for its text; the caller owns the result. Throws std::bad_alloc, and Exception
    // when an address is longer than EmailAddress::maxLength.
    static _TupleId* make(TupleParts const& parts);
    virtual ~_TupleId() = default;
    _TupleId(_TupleId const&) = delete;
    _TupleId& operator=(_TupleId const&) = delete;
    static void operator delete(void* block) { ::operator delete(block); }

    IPAddressMask mask() const; // the sending network
    EmailAddress sender() const;
    EmailAddress recipient() const;

    // EmailAddress::address() of both ("" is null), without making a value. Valid as long as the identity.
    std::string_view senderAddress() const { return parts().sender; }
    std::string_view recipientAddress() const { return parts().recipient; }
    // Valid as long as the identity.
    TupleParts parts() const {
        TupleParts all(m_family, m_cidr, reinterpret_cast<std::uint8_t const*>(this + 1));
        auto const* const text = reinterpret_cast<char const*>(all.network) + all.networkLength();
        all.sender = {text, m_senderLength};
        all.recipient = {text + m_senderLength, m_recipientLength};
        return all;
    }

  private:
    _TupleId() = default;
    static void* operator new(std::size_t size, std::size_t extra) { return ::operator new(size + extra); }
    static void operator delete(void* block, std::size_t) { ::operator delete(block); }

    std::uint16_t m_senderLength = 0;
    std::uint16_t m_recipientLength = 0;
    std::uint8_t m_family = 0;
    std::uint8_t m_cidr = 0;
};

// The handle: empty, or one of many on one identity. Copying counts atomically and never copies the identity.
class TupleId {
  public:
    TupleId() = default;
    TupleId(IPAddressMask const& mask, EmailAddress const& sender, EmailAddress const& recipient)
        : TupleId(TupleParts(mask, sender, recipient)) {}
    explicit TupleId(TupleParts const& parts);
    TupleId(TupleId const&) = default;
    TupleId& operator=(TupleId const&) = default;
    TupleId(TupleId&&) noexcept = default;
    TupleId& operator=(TupleId&&) noexcept = default;
    virtual ~TupleId() = default;

    bool isNull() const { return m_impl == nullptr; }
    explicit operator bool() const { return !isNull(); }
    // The identity; using an empty handle is a programming error.
    _TupleId const* operator->() const { return m_impl.get(); }
    _TupleId const& operator*() const { return *m_impl; }

    // An empty handle comes first; then mask, sender, recipient. Letter case counts: nothing is folded here.
    bool operator<(TupleId const& other) const;
    bool operator==(TupleId const& other) const;

  private:
    boost::shared_ptr<_TupleId> m_impl;
};

} // namespace Vellum::GreyList

template <>
struct Vellum::KeyOrder<Vellum::GreyList::TupleId> {
    static OrderPrefix prefix(GreyList::TupleParts const& parts) { return parts.orderPrefix(); }
    static OrderPrefix prefix(GreyList::TupleId const& id) { return id.isNull() ? OrderPrefix{} : prefix(id->parts()); }
    static int compare(GreyList::TupleId const& a, GreyList::TupleParts const& b) {
        if (a.isNull()) {
            return -1;
        }
        // The recipient often stands in the second line of memory: asked for while the first is on its way.
        __builtin_prefetch(reinterpret_cast<char const*>(&*a) + 64);
        return a->parts().compare(b);
    }
    static int compare(GreyList::TupleId const& a, GreyList::TupleId const& b) {
        return a.isNull() || b.isNull() ? int(b.isNull()) - int(a.isNull()) : compare(a, b->parts());
    }
};
