// How a cache's index orders addresses.
#pragma once

#include "foundation/IPAddress.h"
#include "include2/KeyOrder.h"

namespace Vellum {

// The family, then the address; only IPv6 addresses that agree in 15 bytes need another look.
template <>
struct KeyOrder<IPAddress> {
    static OrderPrefix prefix(IPAddress const& address) {
        OrderPrefixWriter writer;
        writer.byte(address.isV4() ? 4 : (address.isV6() ? 6 : 0));
        writer.bytes(address.bytes().data(), address.bytes().size());
        return writer.prefix();
    }
    static int compare(IPAddress const& a, IPAddress const& b) { return a < b ? -1 : (b < a ? 1 : 0); }
};

} // namespace Vellum
