// The section [metrics] of the daemon's settings.
#pragma once

#include "daemon/ListeningSocket.h"
#include "foundation/Settings.h"

#include <optional>

namespace Vellum::Daemon {

struct MetricsSettings {
    std::optional<ListenAddress> listen; // an Internet address; nothing: metrics are not served over HTTP
};

// Throws SettingsError.
MetricsSettings readMetrics(SettingsTable const& metrics);

} // namespace Vellum::Daemon
