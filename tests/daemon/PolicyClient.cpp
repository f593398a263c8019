#include "tests/daemon/PolicyClient.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <netinet/in.h>
#include <stdexcept>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace Vellum::Daemon {
namespace {

[[noreturn]] void fail(std::string const& operation) {
    throw std::runtime_error(operation + ": " + std::generic_category().message(errno));
}

struct Address {
    sockaddr_storage storage{};
    socklen_t length = 0;
};

Address systemAddress(ListenAddress const& server) {
    Address address;
    auto const store = [&address](auto const& known) {
        std::memcpy(&address.storage, &known, sizeof known);
        address.length = sizeof known;
    };
    if (server.isUnix()) {
        sockaddr_un known{};
        known.sun_family = AF_UNIX;
        server.path.copy(static_cast<char*>(known.sun_path), sizeof known.sun_path - 1);
        store(known);
    } else if (server.inet.address().isV6()) {
        sockaddr_in6 known{};
        known.sin6_family = AF_INET6;
        known.sin6_port = htons(static_cast<std::uint16_t>(server.inet.port()));
        std::memcpy(&known.sin6_addr, server.inet.address().bytes().data(), sizeof known.sin6_addr);
        store(known);
    } else {
        sockaddr_in known{};
        known.sin_family = AF_INET;
        known.sin_port = htons(static_cast<std::uint16_t>(server.inet.port()));
        std::memcpy(&known.sin_addr, server.inet.address().bytes().data(), sizeof known.sin_addr);
        store(known);
    }
    return address;
}

} // namespace

PolicyClient::PolicyClient(ListenAddress const& server)
    : m_server(server), m_socket(::socket(server.isUnix()                ? AF_UNIX
                                          : server.inet.address().isV6() ? AF_INET6
                                                                         : AF_INET,
                                          SOCK_STREAM, 0)) {
    if (m_socket < 0) {
        fail("socket");
    }
    timeval const patience{30, 0};
    setsockopt(m_socket, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    setsockopt(m_socket, SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
}

PolicyClient::PolicyClient(PolicyClient&& other) noexcept
    : m_server(std::move(other.m_server)), m_socket(std::exchange(other.m_socket, -1)),
      m_received(std::move(other.m_received)) {}

PolicyClient::~PolicyClient() {
    close();
}

PolicyClient PolicyClient::connected(ListenAddress const& server) {
    PolicyClient client(server);
    client.connect();
    return client;
}

void PolicyClient::connect() {
    Address const address = systemAddress(m_server);
    if (::connect(m_socket, reinterpret_cast<sockaddr const*>(&address.storage), address.length) != 0) {
        fail("connect to " + m_server.asString());
    }
}

void PolicyClient::send(std::string_view bytes) {
    while (!bytes.empty()) {
        ssize_t const sent = ::send(m_socket, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (sent < 0) {
            fail("send");
        }
        bytes.remove_prefix(static_cast<std::size_t>(sent));
    }
}

std::size_t PolicyClient::sendSome(std::string_view bytes) {
    ssize_t const sent = ::send(m_socket, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (sent < 0 && errno != EAGAIN) {
        fail("send");
    }
    return sent < 0 ? 0 : static_cast<std::size_t>(sent);
}

std::string PolicyClient::answer() {
    std::size_t end = std::string::npos;
    while ((end = m_received.find("\n\n")) == std::string::npos) {
        char piece[65536];
        ssize_t const received = recv(m_socket, piece, sizeof piece, 0);
        if (received == 0 || (received < 0 && errno == ECONNRESET)) {
            return m_received.empty() ? "closed" : "closed after " + m_received;
        }
        if (received < 0) {
            fail("recv");
        }
        m_received.append(piece, static_cast<std::size_t>(received));
    }
    std::string const answer = m_received.substr(0, end);
    m_received.erase(0, end + 2);
    return answer.starts_with("action=") ? answer.substr(7) : "not an answer: " + answer;
}

std::string PolicyClient::ask(std::string_view request) {
    send(request);
    return answer();
}

void PolicyClient::finish() {
    shutdown(m_socket, SHUT_WR);
}

void PolicyClient::close() {
    if (m_socket >= 0) {
        ::close(m_socket);
    }
    m_socket = -1;
}

std::string PolicyClient::name() const {
    sockaddr_in address{};
    socklen_t length = sizeof address;
    if (getsockname(m_socket, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        fail("getsockname");
    }
    return "127.0.0.1:" + std::to_string(ntohs(address.sin_port));
}

} // namespace Vellum::Daemon
