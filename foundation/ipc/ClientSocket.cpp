#include "foundation/ipc/ClientSocket.h"

#include "foundation/Exception.h"
#include "foundation/ipc/Address.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <system_error>
#include <utility>

namespace Vellum::IPC {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t pieceBytes = 256U << 10;
constexpr std::chrono::milliseconds farewell{1'000};

std::string reasonOf(int error) {
    return std::generic_category().message(error);
}

std::string seconds(std::chrono::milliseconds time) {
    return std::to_string(time.count() / 1000) + "." + std::to_string(time.count() % 1000 / 100) + " s";
}

// What poll() takes for the time until `end`; -1 (for ever) when `limit` is 0.
int pollTimeout(std::chrono::milliseconds limit, Clock::time_point end) {
    if (limit.count() == 0) {
        return -1;
    }
    auto const left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now()).count();
    return static_cast<int>(std::clamp<long>(left, 0, INT_MAX));
}

} // namespace

ClientSocket::ClientSocket(int registryNumber, ClientTimeouts const& timeouts)
    : m_endpoint(Endpoint::of(registryNumber)), m_timeouts(timeouts) {
    open();
}

ClientSocket::ClientSocket(Endpoint place, FileDescriptor connected, ClientTimeouts const& timeouts)
    : m_endpoint(std::move(place)), m_timeouts(timeouts), m_socket(std::move(connected)) {
    int const flags = ::fcntl(m_socket.get(), F_GETFL);
    if (flags < 0 || ::fcntl(m_socket.get(), F_SETFL, flags | O_NONBLOCK) != 0) {
        fail("connect", reasonOf(errno));
    }
}

void ClientSocket::open() {
    SystemAddress const address = SystemAddress::of(m_endpoint.host, m_endpoint.port);
    m_socket = FileDescriptor(::socket(address.family(), SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (!m_socket) {
        fail("connect", reasonOf(errno));
    }
    if (::connect(m_socket.get(), address.get(), address.length) != 0) {
        if (errno != EINPROGRESS && errno != EINTR) {
            fail("connect", reasonOf(errno));
        }
        await(POLLOUT, m_timeouts.connect, "connect");
        int error = 0;
        socklen_t length = sizeof error;
        ::getsockopt(m_socket.get(), SOL_SOCKET, SO_ERROR, &error, &length);
        if (error != 0) {
            fail("connect", reasonOf(error));
        }
    }
    int const on = 1; // a request is small and wants to be there now
    ::setsockopt(m_socket.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

ClientSocket::~ClientSocket() {
    if (!m_socket || !m_unanswered) {
        return;
    }
    // The daemon asks the kernel whose connection this is, and the kernel may not know any more once it is closed.
    ::shutdown(m_socket.get(), SHUT_WR);
    ready(POLLIN, farewell);
}

bool ClientSocket::dataWaiting() {
    return m_begin != m_end || ready(POLLIN, std::chrono::milliseconds(-1));
}

void ClientSocket::send(std::uint32_t type, void const* payload, std::size_t length) {
    if (length > Pdu::maxPayload) {
        fail("send", "a payload of " + std::to_string(length) + " bytes is too long");
    }
    char header[Pdu::headerSize];
    Pdu::writeHeader(header, type, static_cast<std::uint32_t>(length));
    std::size_t const total = sizeof header + length;
    std::size_t sent = 0;
    m_unanswered = true;
    while (sent < total) {
        iovec parts[2];
        int count = 0;
        if (sent < sizeof header) {
            parts[count++] = {header + sent, sizeof header - sent};
        }
        std::size_t const skipped = sent > sizeof header ? sent - sizeof header : 0;
        if (length > skipped) {
            parts[count++] = {const_cast<char*>(static_cast<char const*>(payload)) + skipped, length - skipped};
        }
        msghdr message{};
        message.msg_iov = parts;
        message.msg_iovlen = static_cast<std::size_t>(count);
        ssize_t const taken = ::sendmsg(m_socket.get(), &message, MSG_NOSIGNAL);
        if (taken >= 0) {
            sent += static_cast<std::size_t>(taken);
        } else if (errno == EAGAIN || errno == EWOULDBLOCK) {
            await(POLLOUT, m_timeouts.send, "send");
        } else if (errno != EINTR) {
            fail("send", reasonOf(errno));
        }
    }
}

void ClientSocket::receive(Pdu& into) {
    fill(Pdu::headerSize);
    std::uint32_t const type = Pdu::typeInHeader(m_buffer.get() + m_begin);
    std::size_t const length = Pdu::lengthInHeader(m_buffer.get() + m_begin);
    if (length > Pdu::maxPayload) {
        fail("receive", "a unit of type " + std::to_string(type) + " with " + std::to_string(length) +
                            " bytes is none of this protocol");
    }
    fill(Pdu::headerSize + length);
    into.assign(type, m_buffer.get() + m_begin + Pdu::headerSize, length);
    m_begin += Pdu::headerSize + length;
    m_unanswered = false;
}

void ClientSocket::fill(std::size_t wanted) {
    while (m_end - m_begin < wanted) {
        reserve(wanted);
        ssize_t const received = ::recv(m_socket.get(), m_buffer.get() + m_end, m_capacity - m_end, 0);
        if (received > 0) {
            m_end += static_cast<std::size_t>(received);
        } else if (received == 0) {
            fail("receive", m_begin == m_end ? "the daemon ended the connection"
                                             : "the daemon ended the connection within a unit");
        } else if (errno == EAGAIN || errno == EWOULDBLOCK) {
            await(POLLIN, m_timeouts.receive, "receive");
        } else if (errno != EINTR) {
            fail("receive", reasonOf(errno));
        }
    }
}

// Makes room behind the buffered bytes, in the end for `wanted` of them in one piece. Memory grows with what arrives,
// not with what a header announces.
void ClientSocket::reserve(std::size_t wanted) {
    if (m_begin == m_end) {
        m_begin = m_end = 0;
    }
    bool const fitsOnlyInFront = wanted <= m_capacity && m_begin + wanted > m_capacity;
    if (m_end < m_capacity && !fitsOnlyInFront) {
        return;
    }
    if (wanted <= m_capacity) {
        std::memmove(m_buffer.get(), m_buffer.get() + m_begin, m_end - m_begin);
    } else {
        std::size_t const capacity = std::max(pieceBytes, std::min(wanted, 2 * m_capacity));
        std::unique_ptr<char[]> larger(new char[capacity]); // not zeroed
        std::copy_n(m_buffer.get() + m_begin, m_end - m_begin, larger.get());
        m_buffer = std::move(larger);
        m_capacity = capacity;
    }
    m_end -= m_begin;
    m_begin = 0;
}

bool ClientSocket::ready(short events, std::chrono::milliseconds limit) const {
    auto const end = Clock::now() + limit;
    for (;;) {
        pollfd watched{m_socket.get(), events, 0};
        int const answer = ::poll(&watched, 1, pollTimeout(limit, end));
        if (answer >= 0 || errno != EINTR) {
            return answer > 0;
        }
    }
}

void ClientSocket::await(short events, std::chrono::milliseconds limit, char const* operation) {
    if (!ready(events, limit)) {
        fail(operation, "no answer within " + seconds(limit));
    }
}

void ClientSocket::fail(char const* operation, std::string const& reason) {
    m_unanswered = false; // there is nothing left to wait for
    throw Exception(std::string("SocketIPC::") + operation, Exception::failure, "ClientSocket")
        .stringParameter("state daemon at " + m_endpoint.asString() + ": " + reason);
}

} // namespace Vellum::IPC
