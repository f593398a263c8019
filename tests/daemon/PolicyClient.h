// The mail server's end of a policy connection, for tests: blocking, and out of patience after a while.
#pragma once

#include "daemon/ListeningSocket.h"

#include <cstddef>
#include <string>
#include <string_view>

namespace Vellum::Daemon {

class PolicyClient {
  public:
    // A socket that is not connected yet.
    explicit PolicyClient(ListenAddress const& server);
    ~PolicyClient();
    PolicyClient(PolicyClient&& other) noexcept;
    PolicyClient& operator=(PolicyClient&&) = delete;
    PolicyClient(PolicyClient const&) = delete;

    // All of them throw std::runtime_error when the system reports an error, or nothing happens for 30 seconds.
    static PolicyClient connected(ListenAddress const& server);
    void connect();
    void send(std::string_view bytes);
    // Sends what the kernel takes at once; how many bytes that was.
    std::size_t sendSome(std::string_view bytes);
    // One answer, "action=" and the empty line taken off; "closed" when the server has closed the connection.
    std::string answer();
    std::string ask(std::string_view request);
    // Announces that nothing more will be sent.
    void finish();
    void close();

    // "127.0.0.1:4711": what the server sees.
    std::string name() const;
    int socket() const { return m_socket; }

  private:
    ListenAddress m_server;
    int m_socket;
    std::string m_received;
};

} // namespace Vellum::Daemon
