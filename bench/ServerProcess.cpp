#include "bench/ServerProcess.h"

#include "foundation/Exception.h"

#include <arpa/inet.h>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <system_error>
#include <thread>
#include <unistd.h>

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

} // namespace

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
            body([&pipe](auto const& addresses) { writeAddresses(pipe[1], addresses); });
        } catch (std::exception const& e) {
            std::fprintf(stderr, "%s: %s\n", name.c_str(), e.what());
        }
        _exit(1);
    }
    close(pipe[1]);
    awaitAddresses(pipe[0]);
}

ServerProcess::ServerProcess(std::string const& name, std::vector<std::string> const& command,
                             Daemon::ListenAddress const& address, std::string const& outputFile)
    : m_name(name), m_addresses{address} {
    std::vector<char*> arguments;
    for (std::string const& argument : command) {
        arguments.push_back(const_cast<char*>(argument.c_str()));
    }
    arguments.push_back(nullptr);
    m_process = fork();
    if (m_process == 0) {
        endWithParent();
        int const output = open(outputFile.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
        dup2(output, STDOUT_FILENO);
        dup2(output, STDERR_FILENO);
        execvp(arguments[0], arguments.data());
        _exit(127);
    }
    awaitConnection(address);
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
    for (std::size_t begin = 0; begin < text.size();) {
        std::size_t const end = text.find('\n', begin);
        m_addresses.push_back(Daemon::ListenAddress::parse(std::string_view(text).substr(begin, end - begin)));
        begin = end + 1;
    }
    if (m_addresses.empty()) {
        waitpid(m_process, nullptr, 0);
        fail(m_name, "it did not start");
    }
}

void ServerProcess::awaitConnection(Daemon::ListenAddress const& address) {
    for (int attempt = 0; attempt < 500; ++attempt) {
        if (accepts(address)) {
            return;
        }
        if (waitpid(m_process, nullptr, WNOHANG) != 0) {
            fail(m_name, "it ended instead of listening on " + address.asString());
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    kill(m_process, SIGKILL);
    waitpid(m_process, nullptr, 0);
    fail(m_name, "it does not listen on " + address.asString());
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
