#include "daemon/MetricsServer.h"

#include "foundation/Exception.h"
#include "foundation/NoteLimiter.h"
#include "foundation/ServiceThread.h"

#include <prometheus/exposer.h>
#include <prometheus/metric_family.h>

#include <chrono>
#include <string>
#include <utility>
#include <vector>

namespace Vellum::Daemon {
namespace {

// What a metrics library's thread asks. Between its caller and the HTTP library is C code, which no exception passes.
class Unfailing : public prometheus::Collectable {
  public:
    explicit Unfailing(std::shared_ptr<prometheus::Collectable> metrics) : m_metrics(std::move(metrics)) {}

    std::vector<prometheus::MetricFamily> Collect() const override {
        try {
            try {
                return m_metrics->Collect();
            } catch (std::exception const& failed) {
                m_trouble.note(Logger::Severity::error, std::string("metrics could not be told: ") + failed.what());
            }
        } catch (std::exception const&) { // no memory for that either
        }
        return {};
    }

  private:
    std::shared_ptr<prometheus::Collectable> const m_metrics;
    mutable NoteLimiter m_trouble{1, std::chrono::minutes(1)}; // who asks, asks often
};

std::vector<std::string> optionsFor(ListenAddress const& listen) {
    return {"listening_ports", listen.inet.asString(), "num_threads", "2", "request_timeout_ms", "10000"};
}

} // namespace

MetricsServer::MetricsServer(ListenAddress const& listen, std::shared_ptr<prometheus::Collectable> metrics)
    : m_address(listen), m_metrics(std::make_shared<Unfailing>(std::move(metrics))) {
    SignalsBlocked const hold; // the library's threads take none
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
