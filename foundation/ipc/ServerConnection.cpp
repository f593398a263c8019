#include "foundation/ipc/ServerConnection.h"

#include "foundation/Exception.h"
#include "foundation/ipc/Dispatcher.h"

#include <algorithm>
#include <cerrno>
#include <linux/sockios.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <system_error>

namespace Vellum::IPC {
namespace {

constexpr unsigned int eagerLooks = 64;      // records after which a stop is looked for once in a piece only
constexpr std::size_t readBytes = 16U << 10; // requests are small; a long one takes several turns
constexpr std::chrono::milliseconds glance{20};

std::string reasonOf(int error) {
    return std::generic_category().message(error);
}

} // namespace

ConnectionShares::ConnectionShares(DispatcherOptions const& options)
    : maxFrameBytes(options.maxFrameBytes), outputBound(options.outputBound), stallTimeout(options.stallTimeout),
      waitTimeout(options.waitTimeout), input(options.inputBudget), output(options.outputBudget) {}

ServerConnection::ServerConnection(FileDescriptor socket, std::string name, ConnectionShares& shares)
    : m_socket(std::move(socket)), m_name(std::move(name)), m_shares(shares),
      m_frames(shares.maxFrameBytes, shares.input), m_output(shares.outputBound, shares.output) {}

void ServerConnection::beginTask(bool mayWait) {
    m_mayWait = mayWait;
    m_waited = {};
    m_eagerLooks = eagerLooks;
    m_sentSinceLook = true;
    m_wroteSinceLook = false;
}

bool ServerConnection::unitWaiting() const {
    FrameReader::State const state = m_frames.state();
    return state == FrameReader::State::complete || state == FrameReader::State::oversized || !m_failure.empty();
}

bool ServerConnection::dataWaiting() {
    if (unitWaiting()) {
        return true;
    }
    if (m_inputEnded || (m_eagerLooks == 0 && m_sentSinceLook && !m_wroteSinceLook)) {
        return false;
    }
    if (!m_sentSinceLook) {
        write(); // the handler waits for an answer: let the peer have the question
    }
    if (m_eagerLooks > 0) {
        --m_eagerLooks;
    }
    m_sentSinceLook = m_wroteSinceLook = false;
    read();
    return unitWaiting();
}

ServerConnection::Input ServerConnection::read() {
    return readWith([this](char const* bytes, std::size_t length) { return m_frames.append(bytes, length); });
}

ServerConnection::Input ServerConnection::discard() {
    return readWith([](char const*, std::size_t) { return true; });
}

template <class Keep>
ServerConnection::Input ServerConnection::readWith(Keep keep) {
    char bytes[readBytes];
    ssize_t received = 0;
    do {
        received = ::recv(m_socket.get(), bytes, sizeof bytes, MSG_DONTWAIT);
    } while (received < 0 && errno == EINTR);
    if (received > 0) {
        if (keep(bytes, static_cast<std::size_t>(received))) {
            return Input::some;
        }
        fail("no memory is left for the request that it sends");
        return Input::failed;
    }
    if (received == 0) {
        m_inputEnded = true;
        return Input::ended;
    }
    if (errno == EAGAIN || errno == EWOULDBLOCK) {
        return Input::none;
    }
    failWith(errno);
    return Input::failed;
}

void ServerConnection::receive(Pdu& into) {
    if (!unitWaiting() && !m_inputEnded) {
        read();
    }
    if (m_frames.state() == FrameReader::State::oversized) {
        fail("sent a unit of " + std::to_string(m_frames.announced()) + " bytes");
    }
    if (!m_failure.empty()) {
        raise("receive");
    }
    if (m_frames.state() != FrameReader::State::complete) {
        throw Exception("SocketIPC::receive", Exception::failure, "ServerConnection")
            .stringParameter("client " + m_name +
                             (m_inputEnded ? ": has ended its requests" : ": nothing has arrived"));
    }
    m_frames.take(into);
}

void ServerConnection::send(std::uint32_t type, void const* payload, std::size_t length) {
    if (m_aborted.load(std::memory_order_relaxed)) {
        fail("the dispatcher stops");
    }
    if (length > Pdu::maxPayload) {
        fail("a payload of " + std::to_string(length) + " bytes is too long");
    }
    if (!m_failure.empty()) {
        raise("send");
    }
    char header[Pdu::headerSize];
    Pdu::writeHeader(header, type, static_cast<std::uint32_t>(length));
    put(header, sizeof header);
    put(static_cast<char const*>(payload), length);
    m_sentSinceLook = true;
}

void ServerConnection::put(char const* bytes, std::size_t length) {
    while (length > 0) {
        if (m_output.room() == 0) {
            makeRoom();
        }
        std::size_t const fitting = std::min(length, m_output.room());
        m_output.append(bytes, fitting);
        bytes += fitting;
        length -= fitting;
    }
}

// A piece is full: hands it to the kernel, keeps what that does not take, and at the bound waits for the peer.
void ServerConnection::makeRoom() {
    write();
    if (!m_failure.empty()) {
        raise("send");
    }
    if (m_output.room() == 0 && !m_output.grow()) {
        awaitRoom();
    }
}

void ServerConnection::awaitRoom() {
    if (!m_mayWait) {
        fail("does not take its replies");
        raise("send");
    }
    Clock::time_point const begin = Clock::now();
    Clock::time_point lastProgress = begin;
    peerTookMore();
    while (m_output.room() == 0 && !m_output.grow()) {
        auto const patience = std::min(glance, m_shares.stallTimeout);
        pollfd watched{m_socket.get(), POLLOUT, 0};
        ::poll(&watched, 1, static_cast<int>(patience.count()));
        Clock::time_point const now = Clock::now();
        bool const taken = peerTookMore();
        if (write() > 0 || taken) {
            lastProgress = now;
        } else if (now - lastProgress >= m_shares.stallTimeout) {
            fail("takes nothing any more while " + std::to_string(m_shares.outputBound) + " bytes wait for it");
        }
        if (m_waited + (now - begin) >= m_shares.waitTimeout) {
            fail("is too slow: it was waited for " + std::to_string(m_shares.waitTimeout.count()) + " ms in all");
        }
        if (!m_failure.empty()) {
            raise("send");
        }
    }
    m_waited += Clock::now() - begin;
}

// A slow reader makes the kernel take more only after a large part of the kernel's own buffer has gone, so that buffer
// is looked at too.
bool ServerConnection::peerTookMore() {
    int const before = m_unacknowledged;
    if (::ioctl(m_socket.get(), SIOCOUTQ, &m_unacknowledged) != 0) {
        m_unacknowledged = 0;
    }
    return m_unacknowledged < before;
}

std::size_t ServerConnection::write() {
    if (!m_failure.empty()) {
        return 0;
    }
    try {
        std::size_t const written = m_output.writeTo(m_socket.get());
        m_wroteSinceLook = m_wroteSinceLook || written > 0;
        return written;
    } catch (std::system_error const& gone) {
        failWith(gone.code().value());
        return 0;
    }
}

void ServerConnection::abort() {
    m_aborted.store(true, std::memory_order_relaxed);
    ::shutdown(m_socket.get(), SHUT_RDWR);
}

void ServerConnection::fail(std::string const& reason) {
    if (m_failure.empty()) {
        m_failure = reason;
        m_output.release(); // nobody will take it
    }
}

void ServerConnection::failWith(int error) {
    m_peerLeft = error == EPIPE || error == ECONNRESET;
    fail(reasonOf(error));
}

void ServerConnection::finishOutput() {
    ::shutdown(m_socket.get(), SHUT_WR);
}

void ServerConnection::raise(char const* operation) const {
    throw Exception(std::string("SocketIPC::") + operation, Exception::failure, "ServerConnection")
        .stringParameter("client " + m_name + ": " + m_failure);
}

} // namespace Vellum::IPC
