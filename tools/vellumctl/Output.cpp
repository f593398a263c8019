#include "tools/vellumctl/Output.h"

#include "tools/vellumctl/Failure.h"

#include <cerrno>
#include <poll.h>
#include <system_error>
#include <unistd.h>

namespace Vellum::Tools {

void Output::flush() {
    std::string_view rest = m_buffer;
    if (m_open && !rest.empty() && m_beforeWriting) {
        m_beforeWriting();
    }
    while (m_open && !rest.empty()) {
        ssize_t const length = ::write(m_descriptor, rest.data(), rest.size());
        if (length >= 0) {
            rest.remove_prefix(static_cast<std::size_t>(length));
        } else if (errno == EPIPE) {
            m_open = false;
        } else if (errno != EINTR) {
            std::string const reason = std::generic_category().message(errno);
            m_open = false;
            throw Failure(ExitCode::failed, "cannot write the output: " + reason);
        }
    }
    m_buffer.clear();
}

bool Output::isOpen() {
    pollfd watched{m_descriptor, 0, 0};
    if (m_open && ::poll(&watched, 1, 0) > 0 && (watched.revents & POLLERR) != 0) {
        m_open = false;
    }
    return m_open;
}

} // namespace Vellum::Tools
