#include "daemon/PolicyServer.h"

#include "daemon/PolicyAcceptor.h"
#include "foundation/Exception.h"

#include <algorithm>
#include <system_error>
#include <thread>

namespace Vellum::Daemon {

// In the order of construction; destroyed from the end, so no thread ever misses what it uses. The sockets come before
// the workers: their files are there, and clients wait, until the last worker is done.
struct PolicyServer::Running {
    Running(PolicyAnswerer& answerer, PolicyServerOptions const& options);

    PolicyNotes notes;
    PolicyAcceptor::Sockets sockets;
    PolicyAcceptor::Workers workers;
    std::unique_ptr<PolicyAcceptor> acceptor;
};

PolicyServer::Running::Running(PolicyAnswerer& answerer, PolicyServerOptions const& options) {
    for (ListenAddress const& address : options.listen) {
        sockets.push_back(std::make_unique<ListeningSocket>(address, options.socketMode));
    }
    unsigned int const cores = std::max(std::thread::hardware_concurrency(), 1U);
    unsigned int const count = options.workers == 0 ? cores : options.workers;
    for (unsigned int i = 0; i < count; ++i) {
        workers.push_back(std::make_unique<PolicyWorker>(answerer, notes, "policy-" + std::to_string(i)));
    }
    acceptor = std::make_unique<PolicyAcceptor>(sockets, workers,
                                                PolicyAcceptor::Limits{options.maxConnections, options.silentGrace});
}

PolicyServer::PolicyServer(PolicyAnswerer& answerer) : m_answerer(answerer) {}

PolicyServer::~PolicyServer() {
    stop();
}

void PolicyServer::start(PolicyServerOptions const& options) {
    if (options.listen.empty() || !addresses().empty()) {
        throw Exception("PolicyServer::start", Exception::failure, "PolicyServer")
            .stringParameter(options.listen.empty() ? "no address to listen on" : "it runs already");
    }
    try {
        auto running = std::make_unique<Running>(m_answerer, options);
        Synchronized const holding(m_mutex);
        m_running = std::move(running);
    } catch (std::system_error const& e) {
        throw Exception("PolicyServer::start", Exception::failure, "PolicyServer")
            .stringParameter(std::string("a thread: ") + e.what());
    }
}

void PolicyServer::stop() {
    std::unique_ptr<Running> ending; // ends without the lock: those who ask for figures need not wait for the threads
    Synchronized const holding(m_mutex);
    ending.swap(m_running);
}

std::vector<ListenAddress> PolicyServer::addresses() const {
    Synchronized const holding(m_mutex);
    std::vector<ListenAddress> addresses;
    if (m_running != nullptr) {
        for (auto const& socket : m_running->sockets) {
            addresses.push_back(socket->address());
        }
    }
    return addresses;
}

PolicyServerFigures PolicyServer::figures() const {
    Synchronized const holding(m_mutex);
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
