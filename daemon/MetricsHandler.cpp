#include "daemon/MetricsHandler.h"

#include "daemon/AdminHandler.h"
#include "daemon/DaemonMetrics.h"

#include <chrono>
#include <utility>

namespace Vellum::Daemon {
namespace {

class MetricsHandler : public AdminHandler {
  public:
    explicit MetricsHandler(std::shared_ptr<prometheus::Collectable> metrics)
        : AdminHandler(IPC::PduType::adminMetrics, "metrics"), m_metrics(std::move(metrics)) {}

  protected:
    Json answer(Json const&, IPC::SocketIPC&) const override {
        std::chrono::duration<double> const now = std::chrono::system_clock::now().time_since_epoch();
        return {{"time", now.count()}, {"metrics", asJson(m_metrics->Collect())}};
    }

  private:
    std::shared_ptr<prometheus::Collectable> m_metrics;
};

} // namespace

void addMetricsHandler(std::shared_ptr<prometheus::Collectable> metrics, IPC::Dispatcher& dispatcher) {
    dispatcher.add(IPC::MyHandler<MetricsHandler>(new MetricsHandler(std::move(metrics))));
}

} // namespace Vellum::Daemon
