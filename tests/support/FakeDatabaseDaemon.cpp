#include "tests/support/FakeDatabaseDaemon.h"

#include "foundation/database/DatabaseDaemon.h"

#include <cstring>
#include <poll.h>
#include <stdexcept>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <utility>

namespace Vellum {
namespace {

// Fills `bytes`; false when the other side ends before.
bool readAll(int socket, char* bytes, std::size_t length) {
    while (length > 0) {
        ssize_t const got = recv(socket, bytes, length, 0);
        if (got <= 0) {
            return false;
        }
        bytes += got;
        length -= static_cast<std::size_t>(got);
    }
    return true;
}

} // namespace

FakeDatabaseDaemon::FakeDatabaseDaemon(std::int32_t firstAnswer)
    : answer(firstAnswer), m_listener(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    std::string const path = m_directory.path() + "/dbd.sock";
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    if (bind(m_listener, reinterpret_cast<sockaddr const*>(&address), sizeof address) != 0 ||
        listen(m_listener, 16) != 0 || pipe(m_wake) != 0) {
        throw std::runtime_error("no socket " + path);
    }
    DatabaseDaemon::setSocketPath(path);
    m_thread = std::thread([this] { serve(); });
}

FakeDatabaseDaemon::~FakeDatabaseDaemon() {
    close(m_wake[1]);
    m_thread.join();
    close(m_wake[0]);
    close(m_listener);
}

void FakeDatabaseDaemon::serve() {
    for (;;) {
        pollfd waiting[2] = {{m_listener, POLLIN, 0}, {m_wake[0], POLLIN, 0}};
        poll(waiting, 2, -1);
        if (waiting[1].revents != 0) {
            return;
        }
        int const client = accept4(m_listener, nullptr, nullptr, SOCK_CLOEXEC);
        if (client >= 0) {
            converse(client);
            close(client);
        }
    }
}

void FakeDatabaseDaemon::converse(int client) {
    std::string request(DatabaseDaemon::headerSize, '\0');
    if (!readAll(client, request.data(), request.size())) {
        return;
    }
    std::int32_t length = 0;
    std::memcpy(&length, request.data() + 4, sizeof length);
    if (length < 0 || length > 100000) {
        return;
    }
    request.resize(DatabaseDaemon::headerSize + static_cast<std::size_t>(length));
    if (!readAll(client, request.data() + DatabaseDaemon::headerSize, static_cast<std::size_t>(length))) {
        return;
    }
    if (onRequest) {
        onRequest(request);
    }
    std::int32_t const number = answer;
    std::string says(reinterpret_cast<char const*>(&number), sizeof number);
    {
        std::lock_guard const holding(m_lock);
        m_requests.push_back(request);
        says = m_only.value_or(says + m_behind);
    }
    static_cast<void>(send(client, says.data(), says.size(), MSG_NOSIGNAL));
}

void FakeDatabaseDaemon::answerWith(std::string behind) {
    std::lock_guard const holding(m_lock);
    m_behind = std::move(behind);
}

void FakeDatabaseDaemon::sayOnly(std::string bytes) {
    std::lock_guard const holding(m_lock);
    m_only = std::move(bytes);
}

std::vector<std::string> FakeDatabaseDaemon::requests() const {
    std::lock_guard const holding(m_lock);
    return m_requests;
}

void FakeDatabaseDaemon::forgetRequests() {
    std::lock_guard const holding(m_lock);
    m_requests.clear();
}

AbsentDatabaseDaemon::AbsentDatabaseDaemon() {
    DatabaseDaemon::setSocketPath(m_directory.path() + "/dbd.sock");
}

} // namespace Vellum
