#include "tests/radius/PrivateRadius.h"

#include "foundation/Locks.h"
#include "tests/radius/AccountingTables.h"

#include <arpa/inet.h>
#include <chrono>
#include <fstream>
#include <netinet/in.h>
#include <sstream>
#include <stdexcept>
#include <sys/socket.h>
#include <unistd.h>

namespace Vellum {
namespace {

constexpr std::chrono::seconds patience{60};
constexpr char const* secret = "of-the-test";
constexpr char const* databaseUser = "radius";
constexpr char const* databasePassword = "of-the-test-too";

// A UDP port of the loopback that is free now.
unsigned int freePort() {
    int const probe = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (probe < 0 || bind(probe, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
        getsockname(probe, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        throw std::runtime_error("no free port");
    }
    close(probe);
    return ntohs(address.sin_port);
}

void fill(std::string& text, std::string const& word, std::string const& value) {
    std::string const placeholder = "%" + word + "%";
    for (std::size_t at = 0; (at = text.find(placeholder, at)) != std::string::npos; at += value.size()) {
        text.replace(at, placeholder.size(), value);
    }
}

std::string contentOf(std::string const& path) {
    std::ifstream file(path);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

} // namespace

PrivateRadius::PrivateRadius(PrivateMariaDb& database) : m_port(freePort()) {
    std::string const account = std::string("'") + databaseUser + "'@'127.0.0.1'";
    database.run({"create or replace user " + account + " identified by '" + databasePassword + "'",
                  "grant all on msisdn.* to " + account});
    writeConfiguration(database);
    m_process = std::make_unique<BackgroundProcess>(
        std::vector<std::string>{radiusProgram, "-f", "-d", m_directory.path(), "-n", "radiusd"},
        m_directory.path() + "/output");
    awaitService();
}

void PrivateRadius::writeConfiguration(PrivateMariaDb const& database) const {
    std::string text = contentOf(VELLUM_SOURCE_DIR "/tests/data/radiusd.conf");
    fill(text, "DIRECTORY", m_directory.path());
    fill(text, "SECRET", secret);
    fill(text, "DATABASE_PORT", std::to_string(database.port()));
    fill(text, "USER", databaseUser);
    fill(text, "PASSWORD", databasePassword);
    fill(text, "INSTALLED", radiusDirectory);
    fill(text, "PORT", std::to_string(m_port));
    std::ofstream(m_directory.path() + "/radiusd.conf") << text;
}

void PrivateRadius::awaitService() {
    auto const end = std::chrono::steady_clock::now() + patience;
    while (contentOf(m_directory.path() + "/log").find("Ready to process requests") == std::string::npos) {
        if (!m_process->isRunning() || std::chrono::steady_clock::now() > end) {
            throw std::runtime_error("the RADIUS server does not serve: " + logTail());
        }
        sleepFor(0, 10);
    }
}

std::string PrivateRadius::logTail() const {
    std::string const text = contentOf(m_directory.path() + "/output") + contentOf(m_directory.path() + "/log");
    constexpr std::size_t shown = 2000;
    return text.substr(text.size() - std::min(text.size(), shown));
}

void PrivateRadius::send(std::vector<std::string> const& attributes) const {
    std::string const request = m_directory.path() + "/request";
    {
        std::ofstream file(request);
        for (std::string const& attribute : attributes) {
            file << attribute << '\n';
        }
    }
    BackgroundProcess client(
        {"radclient", "-r", "10", "-t", "3", "-f", request, "127.0.0.1:" + std::to_string(m_port), "acct", secret},
        m_directory.path() + "/output");
    if (client.wait() != 0) {
        throw std::runtime_error("the RADIUS server has not taken a request: " + logTail());
    }
}

} // namespace Vellum
