// Clients of a whole daemon, one for each thread, that go on for ever and check what they are answered. A wrong answer
// is thrown as std::runtime_error.
#pragma once

#include "tests/daemon/PolicyClient.h"
#include "tests/support/RawClient.h"

#include <nlohmann/json.hpp>

#include <cstdint>
#include <random>
#include <string>
#include <string_view>
#include <vector>

namespace Vellum::Stress {

// Addresses, senders and recipients that come again now and then; some belong to subscribers.
class Correspondents {
  public:
    explicit Correspondents(std::uint64_t seed) : m_random(seed) {}

    std::string client();
    std::string sender();
    std::string recipient() { return "r" + std::to_string(any(9)) + "@example.org"; }
    unsigned int any(unsigned int below) { return static_cast<unsigned int>(m_random() % below); }

  private:
    std::mt19937_64 m_random;
};

// A mail server that asks over one connection, many recipients at a time.
class PolicyAsker {
  public:
    PolicyAsker(std::string const& socket, std::uint64_t seed);
    void askMany();

  private:
    Correspondents m_people;
    Daemon::PolicyClient m_client;
};

// A mail server that lets a milter look at whole messages, a connection for each few of them.
class MilterSender {
  public:
    MilterSender(std::string socket, std::uint64_t seed) : m_socket(std::move(socket)), m_people(seed) {}
    void sendSome();

  private:
    void sendOne(int connection);

    std::string const m_socket;
    Correspondents m_people;
};

// A tool on port 29001.
class Tool {
  public:
    // `receiveBuffer`: of the kernel, in bytes; 0 leaves it alone.
    explicit Tool(unsigned int port, int receiveBuffer = 0) : m_client(port, "127.0.0.1", receiveBuffer) {}

    // A whole listing: the payloads of its records.
    std::vector<std::string> list(std::uint32_t type, std::string_view payload = "");
    // Some records of a listing, and then it is stopped.
    void listSome(std::uint32_t type);
    // A request without a reply; back when it is done.
    void tell(std::uint32_t type, std::string_view payload = "");
    // A request of the administration; its answer.
    nlohmann::json ask(std::uint32_t type, nlohmann::json const& request = nlohmann::json::object());

  private:
    struct Unit {
        std::uint32_t type;
        std::string payload;
    };
    Unit next();

    RawClient m_client;
};

// What is served over HTTP at /metrics; the whole answer.
std::string metricsOf(unsigned int port);

} // namespace Vellum::Stress
