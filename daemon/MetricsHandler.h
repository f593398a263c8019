// The request on port 29001 for everything that is measured.
//
//   adminMetrics  request {}. Answered by {"time": seconds since the epoch with a fraction, "metrics": the metrics as
//                 DaemonMetrics.h writes them}. Changes nothing and leaves no line in the log.
#pragma once

#include "foundation/ipc/Dispatcher.h"

#include <prometheus/collectable.h>

#include <memory>

namespace Vellum::Daemon {

void addMetricsHandler(std::shared_ptr<prometheus::Collectable> metrics,
                       IPC::Dispatcher& dispatcher = IPC::Dispatcher::instance(IPC::stateDaemonPort));

} // namespace Vellum::Daemon
