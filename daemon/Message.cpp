#include "daemon/Message.h"

#include <algorithm>

namespace Vellum::Daemon {

IPAddress clientOf(IPAddress const& address) {
    if (!IPAddress::isV4Mapped(address)) {
        return address;
    }
    ip_addr_t v4{};
    v4.family = 4;
    std::copy_n(address.bytes().begin() + 12, 4, v4.bytes);
    return {v4};
}

} // namespace Vellum::Daemon
