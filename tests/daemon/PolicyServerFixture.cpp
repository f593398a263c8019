#include "tests/daemon/PolicyServerFixture.h"

#include "tests/support/Eventually.h"

#include <algorithm>
#include <filesystem>
#include <stdexcept>

namespace Vellum::Daemon {

void EchoAnswerer::answer(PolicyRequest const& request, PolicyConnectionMemory& memory, std::string& out) {
    before(request);
    std::string const sender(request[PolicyAttribute::sender]);
    std::string const answer = sender == "!memory" ? memory.prependedInstance
                               : sender == "!long" ? std::string(1000, 'x')
                                                   : sender;
    memory.prependedInstance = sender;
    if (sender == "!silent") {
        return;
    }
    out += "action=" + answer + "\n";
    if (sender == "!throw") {
        throw std::runtime_error("no memory for tuples");
    }
    if (sender == "!throw-number") {
        throw 7; // anything may be thrown
    }
    out += sender == "!garbage" ? "more" : "\n";
    if (sender == "!two") {
        out += "action=second\n\n";
    }
}

std::string requestFrom(std::string const& sender) {
    return "request=smtpd_access_policy\nsender=" + sender + "\n\n";
}

PolicyServerTest::PolicyServerTest() {
    std::string name = testing::TempDir() + "policy.XXXXXX";
    if (mkdtemp(name.data()) == nullptr) {
        throw std::runtime_error("mkdtemp " + name);
    }
    m_directory = name;
}

PolicyServerTest::~PolicyServerTest() {
    server.stop();
    std::filesystem::remove_all(m_directory);
}

void PolicyServerTest::start(PolicyServerOptions options) {
    options.listen = {ListenAddress::parse("unix:" + file("policy")), ListenAddress::parse("inet:127.0.0.1:0")};
    server.start(options);
}

bool PolicyServerTest::eventually(std::function<bool(PolicyServerFigures const&)> const& wanted) const {
    return Vellum::eventually([&] { return wanted(server.figures()); });
}

std::size_t PolicyServerTest::notes(std::string const& part) const {
    auto const all = log.notes();
    return static_cast<std::size_t>(std::count_if(
        all.begin(), all.end(), [&part](std::string const& note) { return note.find(part) != std::string::npos; }));
}

} // namespace Vellum::Daemon
