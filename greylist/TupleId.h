// The identity that greylisting keys on: sending network, envelope sender, envelope recipient.
#pragma once

#include "foundation/EmailAddress.h"
#include "foundation/IPAddressMask.h"
#include "include2/KeyOrder.h"

#include <boost/shared_ptr.hpp>

#include <cstdint>
#include <string_view>

namespace Vellum::GreyList {

// One tuple, immutable. A million of them are kept, so network and both addresses are packed behind the object in one
// block of memory: family, prefix length and lengths in the object, then the address bytes (4 or 16), the sender and
// the recipient, without separators.
class _TupleId {
  public:
    // Made only in blocks with room for its text; the caller owns the result. Throws std::bad_alloc, and Exception
    // when an address is longer than EmailAddress::maxLength.
    static _TupleId* make(IPAddressMask const& mask, EmailAddress const& sender, EmailAddress const& recipient);
    virtual ~_TupleId() = default;
    _TupleId(_TupleId const&) = delete;
    _TupleId& operator=(_TupleId const&) = delete;
    static void operator delete(void* block) { ::operator delete(block); }

    IPAddressMask mask() const; // the sending network
    EmailAddress sender() const;
    EmailAddress recipient() const;

    // EmailAddress::address() of both ("" is null), without making a value. Valid as long as the identity.
    std::string_view senderAddress() const { return {text(), m_senderLength}; }
    std::string_view recipientAddress() const { return {text() + m_senderLength, m_recipientLength}; }

    // Below 0, 0 or above 0 in the order of mask, sender, recipient.
    int compare(_TupleId const& other) const;
    OrderPrefix orderPrefix() const;

  private:
    _TupleId() = default;
    static void* operator new(std::size_t size, std::size_t extra) { return ::operator new(size + extra); }
    static void operator delete(void* block, std::size_t) { ::operator delete(block); }

    static unsigned int addressLength(unsigned int family) { return family == 4 ? 4 : (family == 6 ? 16 : 0); }
    std::uint8_t const* tail() const { return reinterpret_cast<std::uint8_t const*>(this + 1); }
    char const* text() const { return reinterpret_cast<char const*>(tail()) + addressLength(m_family); }

    std::uint16_t m_senderLength = 0;
    std::uint16_t m_recipientLength = 0;
    std::uint8_t m_family = 0; // 0 null, 4, 6
    std::uint8_t m_cidr = 0;
};

// The handle: empty, or one of many on one identity. Copying counts atomically and never copies the identity.
class TupleId {
  public:
    TupleId() = default;
    TupleId(IPAddressMask const& mask, EmailAddress const& sender, EmailAddress const& recipient);
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
    static OrderPrefix prefix(GreyList::TupleId const& id) { return id.isNull() ? OrderPrefix{} : id->orderPrefix(); }
    static int compare(GreyList::TupleId const& a, GreyList::TupleId const& b) {
        return a.isNull() || b.isNull() ? int(b.isNull()) - int(a.isNull()) : a->compare(*b);
    }
};
