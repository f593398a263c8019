// A client that knows nothing of the library: bytes in, bytes out.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace Vellum {

// The raw form of a unit, spelled out once more on purpose: type, length, payload, host byte order.
std::string rawUnit(std::uint32_t type, std::string_view payload = "");

class RawClient {
  public:
    // `receiveBuffer`: the kernel's, in bytes; 0 leaves it alone. Throws std::runtime_error when nobody listens.
    explicit RawClient(unsigned int port, std::string const& host = "127.0.0.1", int receiveBuffer = 0);
    ~RawClient();
    RawClient(RawClient const&) = delete;
    RawClient& operator=(RawClient const&) = delete;

    void send(std::string_view bytes);
    void shutdownSending();
    // Exactly so many bytes; throws std::runtime_error when the connection ends before, or nothing comes for 30 s.
    std::string read(std::size_t bytes);
    // Everything until the other side ends the connection, which must happen within 30 s without a byte.
    std::string readUntilEnd() { return readUntilEndOr(std::string::npos); }
    // Likewise, or so many bytes.
    std::string readUntilEndOr(std::size_t bytes);
    void close();
    int descriptor() const { return m_socket; }

  private:
    std::size_t readSome(char* into, std::size_t most);

    int m_socket;
};

} // namespace Vellum
