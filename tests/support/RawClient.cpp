#include "tests/support/RawClient.h"

#include "foundation/ipc/Address.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <stdexcept>
#include <sys/socket.h>
#include <unistd.h>

namespace Vellum {
namespace {

constexpr int patienceMilliseconds = 30'000; // only a test that fails waits for so long

} // namespace

std::string rawUnit(std::uint32_t type, std::string_view payload) {
    auto const length = static_cast<std::uint32_t>(payload.size());
    std::string raw(8, '\0');
    std::memcpy(raw.data(), &type, 4);
    std::memcpy(raw.data() + 4, &length, 4);
    return raw.append(payload);
}

RawClient::RawClient(unsigned int port, std::string const& host, int receiveBuffer) {
    IPC::SystemAddress const address = IPC::SystemAddress::of(host, port);
    m_socket = ::socket(address.family(), SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (receiveBuffer > 0) {
        ::setsockopt(m_socket, SOL_SOCKET, SO_RCVBUF, &receiveBuffer, sizeof receiveBuffer);
    }
    int const on = 1;
    ::setsockopt(m_socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    if (::connect(m_socket, address.get(), address.length) != 0) {
        std::string const reason = std::strerror(errno);
        ::close(m_socket);
        throw std::runtime_error("connect: " + reason);
    }
}

RawClient::~RawClient() {
    close();
}

void RawClient::close() {
    if (m_socket >= 0) {
        ::close(m_socket);
        m_socket = -1;
    }
}

void RawClient::send(std::string_view bytes) {
    while (!bytes.empty()) {
        ssize_t const sent = ::send(m_socket, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (sent < 0) {
            throw std::runtime_error(std::string("send: ") + std::strerror(errno));
        }
        bytes.remove_prefix(static_cast<std::size_t>(sent));
    }
}

void RawClient::shutdownSending() {
    ::shutdown(m_socket, SHUT_WR);
}

// 0 at the end of the connection, also when it was reset.
std::size_t RawClient::readSome(char* into, std::size_t most) {
    pollfd watched{m_socket, POLLIN, 0};
    if (::poll(&watched, 1, patienceMilliseconds) <= 0) {
        throw std::runtime_error("read: nothing came");
    }
    ssize_t const received = ::recv(m_socket, into, most, 0);
    return received > 0 ? static_cast<std::size_t>(received) : 0;
}

std::string RawClient::read(std::size_t bytes) {
    std::string all(bytes, '\0');
    for (std::size_t done = 0; done < bytes;) {
        std::size_t const more = readSome(all.data() + done, bytes - done);
        if (more == 0) {
            throw std::runtime_error("read: the connection ended after " + std::to_string(done) + " of " +
                                     std::to_string(bytes) + " bytes");
        }
        done += more;
    }
    return all;
}

std::string RawClient::readUntilEndOr(std::size_t bytes) {
    std::string all;
    std::array<char, 65536> piece;
    while (all.size() < bytes) {
        std::size_t const more = readSome(piece.data(), std::min(piece.size(), bytes - all.size()));
        if (more == 0) {
            break;
        }
        all.append(piece.data(), more);
    }
    return all;
}

} // namespace Vellum
