#include "bench/ServerProcess.h"

#include "foundation/Exception.h"

#include <arpa/inet.h>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace Vellum::Bench {
namespace {

[[noreturn]] void fail(std::string const& name, std::string const& what) {
    throw Exception("ServerProcess::ServerProcess", Exception::failure, "ServerProcess")
        .stringParameter(name + ": " + what);
}

// So that no server survives a benchmark that is killed.
void endWithParent() {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
}

void writeAddresses(int pipe, std::vector<Daemon::ListenAddress> const& addresses) {
    std::string text;
    for (auto const& address : addresses) {
        text += address.asString() + '\n';
    }
    [[maybe_unused]] ssize_t const written = write(pipe, text.data(), text.size());
    close(pipe);
}

// Instead of addresses: a line that begins with what no address begins with.
void writeReason(int pipe, std::string const& reason) {
    std::string const text = '!' + reason;
    [[maybe_unused]] ssize_t const written = write(pipe, text.data(), text.size());
}

} // namespace

std::string reasonOf(std::exception const& caught) {
    auto const* const ours = dynamic_cast<Exception const*>(&caught);
    return ours != nullptr && !ours->stringParameters().empty() ? ours->stringParameters().back() : caught.what();
}

bool accepts(Daemon::ListenAddress const& address) {
    int const probe = socket(address.isUnix() ? AF_UNIX : AF_INET, SOCK_STREAM, 0);
    int result = -1;
    if (address.isUnix()) {
        sockaddr_un where{};
        where.sun_family = AF_UNIX;
        address.path.copy(static_cast<char*>(where.sun_path), sizeof where.sun_path - 1);
        result = connect(probe, reinterpret_cast<sockaddr*>(&where), sizeof where);
    } else {
        sockaddr_in where{};
        where.sin_family = AF_INET;
        where.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        where.sin_port = htons(static_cast<std::uint16_t>(address.inet.port()));
        result = connect(probe, reinterpret_cast<sockaddr*>(&where), sizeof where);
    }
    close(probe);
    return result == 0;
}

ServerProcess::ServerProcess(std::string const& name, std::function<void(Ready const&)> const& body) : m_name(name) {
    int pipe[2];
    if (pipe2(pipe, O_CLOEXEC) != 0) {
        fail(name, "pipe: " + std::generic_category().message(errno));
    }
    m_process = fork();
    if (m_process == 0) {
        endWithParent();
        close(pipe[0]);
        try {
            body([&pipe](auto const& addresses) { writeAddresses(std::exchange(pipe[1], -1), addresses); });
        } catch (std::exception const& e) {
            writeReason(pipe[1], reasonOf(e));
        }
        _exit(1);
    }
    close(pipe[1]);
    awaitAddresses(pipe[0]);
}

ServerProcess::~ServerProcess() {
    kill(m_process, SIGTERM);
    waitpid(m_process, nullptr, 0);
}

void ServerProcess::awaitAddresses(int pipe) {
    std::string text;
    char piece[512];
    ssize_t count = 0;
    while ((count = read(pipe, piece, sizeof piece)) > 0) {
        text.append(piece, static_cast<std::size_t>(count));
    }
    close(pipe);
    if (text.starts_with('!') || text.empty()) {
        waitpid(m_process, nullptr, 0);
        fail(m_name, text.empty() ? "it did not start" : text.substr(1));
    }
    for (std::size_t begin = 0; begin < text.size();) {
        std::size_t const end = text.find('\n', begin);
        m_addresses.push_back(Daemon::ListenAddress::parse(std::string_view(text).substr(begin, end - begin)));
        begin = end + 1;
    }
}

Daemon::ListenAddress const& ServerProcess::addressWhere(bool isUnix) const {
    for (auto const& address : m_addresses) {
        if (address.isUnix() == isUnix) {
            return address;
        }
    }
    throw Exception("ServerProcess::addressWhere", Exception::failure, "ServerProcess").stringParameter(m_name);
}

Daemon::ListenAddress const& ServerProcess::unixAddress() const {
    return addressWhere(true);
}

Daemon::ListenAddress const& ServerProcess::tcpAddress() const {
    return addressWhere(false);
}

} // namespace Vellum::Bench
