#include "foundation/ipc/OutputQueue.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <sys/socket.h>
#include <sys/uio.h>
#include <system_error>

namespace Vellum::IPC {
namespace {

constexpr std::size_t piecesAtOnce = 16;

} // namespace

OutputQueue::OutputQueue(std::size_t bound, Budget& budget)
    : m_maxPieces(std::max<std::size_t>(bound / pieceBytes, 1)), m_budget(budget) {}

OutputQueue::~OutputQueue() {
    release();
}

void OutputQueue::release() {
    if (m_pieces.size() > 1) {
        m_budget.give((m_pieces.size() - 1) * pieceBytes);
    }
    m_pieces.clear();
    m_written = m_used = 0;
}

void OutputQueue::append(void const* bytes, std::size_t length) {
    std::memcpy(m_pieces.back().get() + m_used, bytes, length);
    m_used += length;
}

bool OutputQueue::grow() {
    std::size_t const charge = m_pieces.empty() ? 0 : pieceBytes;
    if (m_pieces.size() >= m_maxPieces || !m_budget.take(charge)) {
        return false;
    }
    try {
        m_pieces.emplace_back(new char[pieceBytes]); // not zeroed
    } catch (...) {
        m_budget.give(charge);
        throw;
    }
    m_used = 0;
    return true;
}

std::size_t OutputQueue::writeTo(int socket) {
    std::size_t total = 0;
    while (!isEmpty()) {
        iovec parts[piecesAtOnce];
        std::size_t const count = std::min(m_pieces.size(), piecesAtOnce);
        std::size_t offered = 0;
        for (std::size_t i = 0; i < count; ++i) {
            std::size_t const begin = i == 0 ? m_written : 0;
            std::size_t const end = i + 1 == m_pieces.size() ? m_used : pieceBytes;
            parts[i] = {m_pieces[i].get() + begin, end - begin};
            offered += end - begin;
        }
        msghdr message{};
        message.msg_iov = parts;
        message.msg_iovlen = count;
        ssize_t const taken = ::sendmsg(socket, &message, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (taken < 0) {
            if (errno == EINTR) {
                continue;
            }
            if (errno == EAGAIN || errno == EWOULDBLOCK) {
                break;
            }
            throw std::system_error(errno, std::generic_category());
        }
        drop(static_cast<std::size_t>(taken));
        total += static_cast<std::size_t>(taken);
        if (static_cast<std::size_t>(taken) < offered) {
            break; // the kernel is full
        }
    }
    return total;
}

// Forgets bytes at the front. The last piece stays, to be filled again.
void OutputQueue::drop(std::size_t written) {
    m_written += written;
    while (m_pieces.size() > 1 && m_written >= pieceBytes) {
        m_pieces.pop_front();
        m_budget.give(pieceBytes);
        m_written -= pieceBytes;
    }
    if (m_pieces.size() == 1 && m_written == m_used) {
        m_written = m_used = 0;
    }
}

} // namespace Vellum::IPC
