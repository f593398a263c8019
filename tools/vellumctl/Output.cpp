#include "tools/vellumctl/Output.h"

#include "tools/vellumctl/Failure.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <poll.h>
#include <system_error>
#include <unistd.h>

namespace Vellum::Tools {
namespace {

// What a pipe that takes anything takes at once.
constexpr std::size_t surelyTaken = PIPE_BUF;

} // namespace

void Output::writeOut(bool wait) {
    std::string_view rest = m_buffer;
    if (m_open && !rest.empty() && m_beforeWriting) {
        m_beforeWriting();
    }
    while (m_open && !rest.empty() && (wait || takesMore())) {
        ssize_t const length = ::write(m_descriptor, rest.data(), std::min(rest.size(), surelyTaken));
        if (length >= 0) {
            rest.remove_prefix(static_cast<std::size_t>(length));
        } else if (errno == EPIPE) {
            m_open = false;
        } else if (errno != EINTR) {
            std::string const reason = std::generic_category().message(errno);
            m_open = false;
            m_buffer.clear();
            throw Failure(ExitCode::failed, "cannot write the output: " + reason);
        }
    }
    m_buffer.erase(0, m_open ? m_buffer.size() - rest.size() : m_buffer.size());
    m_tryAt = m_buffer.size() + std::max(pieceBytes, m_buffer.size() / 8); // moving what is kept must not add up
}

bool Output::takesMore() const {
    pollfd watched{m_descriptor, POLLOUT, 0};
    return ::poll(&watched, 1, 0) > 0;
}

bool Output::isOpen() {
    pollfd watched{m_descriptor, 0, 0};
    if (m_open && ::poll(&watched, 1, 0) > 0 && (watched.revents & POLLERR) != 0) {
        m_open = false;
    }
    return m_open;
}

} // namespace Vellum::Tools
