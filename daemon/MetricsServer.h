// Tells the metrics to whoever asks over HTTP, at /metrics, in the text form of Prometheus.
#pragma once

#include "daemon/ListeningSocket.h"

#include <prometheus/collectable.h>

#include <memory>

namespace prometheus {
class Exposer;
}

namespace Vellum::Daemon {

// Threads: the HTTP library's own, two of them; so at most two are answered at once, and one that says nothing keeps
// one of them for ten seconds. Mail is not concerned.
class MetricsServer {
  public:
    // Listens and serves from now on. A collection that throws is answered without what `metrics` tells, and logged,
    // once a minute at the most.
    // Throws Exception naming the address and what is wrong with it.
    MetricsServer(ListenAddress const& listen, std::shared_ptr<prometheus::Collectable> metrics);
    ~MetricsServer(); // waits for a collection under way
    MetricsServer(MetricsServer const&) = delete;
    MetricsServer& operator=(MetricsServer const&) = delete;

    // Where it listens; a port 0 is replaced by the one that the kernel chose.
    ListenAddress const& address() const { return m_address; }

  private:
    ListenAddress m_address;
    std::shared_ptr<prometheus::Collectable> m_metrics;
    std::unique_ptr<prometheus::Exposer> m_exposer;
};

} // namespace Vellum::Daemon
