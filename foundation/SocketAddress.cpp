#include "foundation/SocketAddress.h"

namespace Vellum {

std::string SocketAddress::asString() const {
    std::string const address = m_address.asString();
    return (m_address.isV6() ? '[' + address + ']' : address) + ':' + std::to_string(m_port);
}

} // namespace Vellum
