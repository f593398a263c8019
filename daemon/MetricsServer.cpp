#include "daemon/MetricsServer.h"

#include "foundation/Exception.h"

#include <prometheus/exposer.h>

#include <csignal>
#include <pthread.h>
#include <string>
#include <vector>

namespace Vellum::Daemon {
namespace {

// Threads that are made meanwhile get no signal: those are the main thread's business.
class WithoutSignals {
  public:
    WithoutSignals() {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &m_before);
    }
    ~WithoutSignals() { pthread_sigmask(SIG_SETMASK, &m_before, nullptr); }
    WithoutSignals(WithoutSignals const&) = delete;
    WithoutSignals& operator=(WithoutSignals const&) = delete;

  private:
    sigset_t m_before{};
};

std::vector<std::string> optionsFor(ListenAddress const& listen) {
    return {"listening_ports", listen.inet.asString(), "num_threads", "2", "request_timeout_ms", "10000"};
}

} // namespace

MetricsServer::MetricsServer(ListenAddress const& listen, std::shared_ptr<prometheus::Collectable> metrics)
    : m_address(listen), m_metrics(std::move(metrics)) {
    WithoutSignals const hold;
    try {
        // The library does not tell why it cannot listen, so that is found out beforehand.
        static_cast<void>(ListeningSocket(listen, 0));
        m_exposer = std::make_unique<prometheus::Exposer>(optionsFor(listen));
        m_exposer->RegisterCollectable(m_metrics);
        m_address.inet = {listen.inet.address(), static_cast<unsigned int>(m_exposer->GetListeningPorts().at(0))};
    } catch (Exception const& failed) {
        throw Exception("MetricsServer", Exception::failure)
            .stringParameter("metrics cannot be served: " + failed.asString());
    } catch (std::exception const& failed) {
        throw Exception("MetricsServer", Exception::failure)
            .stringParameter("metrics cannot be served: " + listen.asString() + ": " + failed.what());
    }
}

MetricsServer::~MetricsServer() = default;

} // namespace Vellum::Daemon
