#include "daemon/PolicyServer.h"

#include "daemon/PolicyAcceptor.h"
#include "foundation/Exception.h"

#include <algorithm>
#include <thread>

namespace Vellum::Daemon {

// In the order of construction; destroyed from the end, so no thread ever misses what it uses. The sockets come before
// the workers: their files are there, and clients wait, until the last worker is done.
struct PolicyServer::Running {
    PolicyNotes notes;
    PolicyAcceptor::Sockets sockets;
    PolicyAcceptor::Workers workers;
    std::unique_ptr<PolicyAcceptor> acceptor;
};

PolicyServer::PolicyServer(PolicyAnswerer& answerer) : m_answerer(answerer) {}

PolicyServer::~PolicyServer() {
    stop();
}

void PolicyServer::start(PolicyServerOptions const& options) {
    if (m_running != nullptr || options.listen.empty()) {
        throw Exception("PolicyServer::start", Exception::failure, "PolicyServer")
            .stringParameter(options.listen.empty() ? "no address to listen on" : "it runs already");
    }
    auto running = std::make_unique<Running>();
    for (ListenAddress const& address : options.listen) {
        running->sockets.push_back(std::make_unique<ListeningSocket>(address, options.socketMode));
    }
    unsigned int const cores = std::max(std::thread::hardware_concurrency(), 1U);
    unsigned int const workers = options.workers == 0 ? cores : options.workers;
    for (unsigned int i = 0; i < workers; ++i) {
        running->workers.push_back(
            std::make_unique<PolicyWorker>(m_answerer, running->notes, "policy-" + std::to_string(i)));
    }
    running->acceptor = std::make_unique<PolicyAcceptor>(
        running->sockets, running->workers, PolicyAcceptor::Limits{options.maxConnections, options.silentGrace});
    m_running = std::move(running);
}

void PolicyServer::stop() {
    m_running.reset();
}

std::vector<ListenAddress> PolicyServer::addresses() const {
    std::vector<ListenAddress> addresses;
    if (m_running != nullptr) {
        for (auto const& socket : m_running->sockets) {
            addresses.push_back(socket->address());
        }
    }
    return addresses;
}

PolicyServerFigures PolicyServer::figures() const {
    PolicyServerFigures figures;
    if (m_running == nullptr) {
        return figures;
    }
    figures.accepted = m_running->acceptor->accepted();
    figures.refused = m_running->acceptor->refused();
    for (auto const& worker : m_running->workers) {
        figures.connections += worker->connections();
        figures.requests += worker->requests();
        figures.protocolErrors += worker->protocolErrors();
        figures.failedAnswers += worker->failedAnswers();
    }
    return figures;
}

} // namespace Vellum::Daemon
