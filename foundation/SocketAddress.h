// An address and a port.
#pragma once

#include "foundation/IPAddress.h"

#include <string>

namespace Vellum {

class SocketAddress {
  public:
    SocketAddress() = default;
    SocketAddress(IPAddress const& address, unsigned int port) : m_address(address), m_port(port) {}

    IPAddress const& address() const { return m_address; }
    unsigned int port() const { return m_port; }
    // "127.0.0.1:3306", "[::1]:3306".
    std::string asString() const;

    bool operator==(SocketAddress const& other) const { return m_address == other.m_address && m_port == other.m_port; }

  private:
    IPAddress m_address;
    unsigned int m_port = 0;
};

} // namespace Vellum
