// A policy server for tests, on sockets of its own.
#pragma once

#include "daemon/PolicyServer.h"
#include "tests/daemon/PolicyClient.h"
#include "tests/support/CapturingLogger.h"

#include <functional>
#include <gtest/gtest.h>
#include <string>

namespace Vellum::Daemon {

// Answers the value of "sender", so that a test sees which request an answer belongs to. Some senders are special:
//   !throw, !throw-number   an exception
//   !silent, !garbage, !two no answer, bytes that are none, two answers
//   !memory                 the sender of the request before, which the connection's memory keeps
//   !long                   1000 letters
class EchoAnswerer : public PolicyAnswerer {
  public:
    void answer(PolicyRequest const& request, PolicyConnectionMemory& memory, std::string& out) override;
    // Called for every request before it is answered.
    std::function<void(PolicyRequest const&)> before = [](PolicyRequest const&) {
    };
};

class PolicyServerTest : public testing::Test {
  protected:
    PolicyServerTest();
    ~PolicyServerTest() override;

    // Starts on a Unix socket and on 127.0.0.1.
    void start(PolicyServerOptions options = {});
    PolicyClient connect() const { return PolicyClient::connected(tcp()); }
    ListenAddress tcp() const { return server.addresses().at(1); }
    ListenAddress unixSocket() const { return server.addresses().at(0); }
    std::string file(std::string const& name) const { return m_directory + '/' + name; }
    // Waits until the figures are as wanted; false after 30 seconds.
    bool eventually(std::function<bool(PolicyServerFigures const&)> const& wanted) const;
    // How many notes hold `part`.
    std::size_t notes(std::string const& part) const;

    CapturingLogger log;
    EchoAnswerer answerer;
    PolicyServer server{answerer};

  private:
    std::string m_directory;
};

// "sender=...\n\n"
std::string requestFrom(std::string const& sender);

} // namespace Vellum::Daemon
