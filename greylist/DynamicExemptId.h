// The identity of an automatic exemption: sending network and the domain that earned it.
#pragma once

#include "foundation/IPAddressMask.h"
#include "include2/KeyOrder.h"

#include <boost/shared_ptr.hpp>

#include <string>
#include <string_view>

namespace Vellum::GreyList {

// The parts of an exemption's identity, in the caller's memory: for a search.
struct DynamicExemptParts {
    IPAddressMask const& mask;
    std::string_view domain;
};

// One exemption's identity, immutable. The domain is a byte string, kept as given: letter case distinguishes.
class _DynamicExemptId {
  public:
    _DynamicExemptId(IPAddressMask const& mask, std::string const& domain) : m_mask(mask), m_domain(domain) {}
    virtual ~_DynamicExemptId() = default;
    _DynamicExemptId(_DynamicExemptId const&) = delete;
    _DynamicExemptId& operator=(_DynamicExemptId const&) = delete;

    IPAddressMask const& mask() const { return m_mask; }
    std::string const& domain() const { return m_domain; }

  private:
    IPAddressMask m_mask;
    std::string m_domain;
};

// The handle, as TupleId is.
class DynamicExemptId {
  public:
    DynamicExemptId() = default;
    DynamicExemptId(IPAddressMask const& mask, std::string const& domain);
    DynamicExemptId(DynamicExemptId const&) = default;
    DynamicExemptId& operator=(DynamicExemptId const&) = default;
    virtual ~DynamicExemptId() = default;

    bool isNull() const { return m_impl == nullptr; }
    explicit operator bool() const { return !isNull(); }
    // The identity; using an empty handle is a programming error.
    _DynamicExemptId const* operator->() const { return m_impl.get(); }
    _DynamicExemptId const& operator*() const { return *m_impl; }

    // An empty handle comes first; then domain (bytes, a proper prefix is less), then mask: not the order of tuples.
    bool operator<(DynamicExemptId const& other) const;
    bool operator==(DynamicExemptId const& other) const;

  private:
    boost::shared_ptr<_DynamicExemptId> m_impl;
};

} // namespace Vellum::GreyList

template <>
struct Vellum::KeyOrder<Vellum::GreyList::DynamicExemptId> {
    // The domain alone: it may hold any byte, so nothing can be written behind it.
    static OrderPrefix prefix(GreyList::DynamicExemptParts const& parts) {
        OrderPrefixWriter writer;
        writer.bytes(parts.domain.data(), parts.domain.size());
        return writer.prefix();
    }
    static OrderPrefix prefix(GreyList::DynamicExemptId const& id) {
        return id.isNull() ? OrderPrefix{} : prefix(GreyList::DynamicExemptParts{id->mask(), id->domain()});
    }
    static int compare(GreyList::DynamicExemptId const& a, GreyList::DynamicExemptParts const& b) {
        if (a.isNull()) {
            return -1;
        }
        int const order = std::string_view(a->domain()).compare(b.domain);
        return order != 0 ? order : (a->mask() < b.mask ? -1 : (b.mask < a->mask() ? 1 : 0));
    }
    static int compare(GreyList::DynamicExemptId const& a, GreyList::DynamicExemptId const& b) {
        return a < b ? -1 : (b < a ? 1 : 0);
    }
};
